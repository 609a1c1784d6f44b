#pragma once
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSArray.h"
#include "foundation/NSError.h"
#include "foundation/NSObject.h"

inline constexpr std::string_view QJJSONErrorDomain = "org.vantorlek.JSON.ErrorDomain";

/// The codes of errors in QJJSONErrorDomain.
enum class QJJsonErrorCode : int {
  unsupported = 1,       ///< a value or key that JSON cannot represent
  number = 2,            ///< a number is malformed, or out of a decimal's range
  syntax = 3,            ///< no value, key or colon where one is required
  fragment = 4,          ///< the outermost value is neither an array nor an object
  controlCharacter = 5,  ///< a character below 32 inside a string, not escaped
  unicode = 6,           ///< a broken \u escape, or bytes that are not UTF-8
  depth = 7,             ///< arrays and objects are nested deeper than maxDepth
  escape = 8,            ///< an unknown character after a backslash
  trailingComma = 9,     ///< a comma before a closing bracket
  garbage = 10,          ///< something follows the outermost value
  endOfInput = 11,       ///< the text ends too early
  noInput = 12,          ///< there is no text
};

/// Base of the JSON reader and writer: the error trace of the last call and the nesting limit.
///
/// Threads: one thread at a time; only errorTrace() may be called concurrently.
class QJJsonBase : public NSObject {
 public:
  using Observer = std::function<void()>;

  /// The errors of the last call as an array of NSError, innermost first, so that the last one is the
  /// outermost; empty reference when there are none. A snapshot: it does not change when errors are added.
  /// Any thread.
  std::shared_ptr<NSArray> errorTrace() const;

  /// The deepest accepted nesting of arrays and objects, 512 by default; 0 means no limit. Without a limit
  /// heap use grows with the nesting (about 0.5 KB a level for the errors of a refused text), stack use does
  /// not.
  std::size_t maxDepth() const noexcept { return maxDepth_; }
  void setMaxDepth(std::size_t depth) noexcept { maxDepth_ = depth; }

  /// Appends an error of QJJSONErrorDomain with `description` under NSLocalizedDescriptionKey and the trace's
  /// last error, if any, under NSUnderlyingErrorKey. Observers are notified before and after.
  void addErrorWithCode(QJJsonErrorCode code, std::string_view description);
  /// Drops the trace. Observers are notified before and after, also when there was none.
  void clearErrorTrace();

  /// Registers two callbacks (each may be empty) for changes of errorTrace: `willChange` runs before a
  /// change, `didChange` after it, both on the thread that changes it. They may read errorTrace() and add or
  /// remove observers; they must not throw.
  /// @return a token for removeErrorTraceObserver, never 0.
  std::size_t addErrorTraceObserver(Observer willChange, Observer didChange);
  /// An unknown token is ignored. An observer that is removed during a change is not notified of it any more.
  void removeErrorTraceObserver(std::size_t token);

 protected:
  QJJsonBase() = default;

  /// As addErrorWithCode. @return false, so that a failing step can return it.
  bool fail(QJJsonErrorCode code, std::string_view description) {
    addErrorWithCode(code, description);
    return false;
  }

  /// The last (outermost) error of the trace, or nothing.
  NSErrorRef lastError() const;

  /// Arrays and objects that are open. Counted with and without a limit.
  std::size_t depth_ = 0;

 private:
  struct Registration {
    std::size_t token;
    Observer willChange;
    Observer didChange;
  };
  template <class Change>
  void changeErrorTrace(Change change);
  void notifyObservers(Observer Registration::*moment) noexcept;

  std::size_t maxDepth_ = 512;
  mutable std::mutex errorTraceMutex_;
  std::vector<NSErrorRef> errorTrace_;  // guarded by errorTraceMutex_
  std::vector<std::shared_ptr<Registration>> observers_;
  std::size_t lastToken_ = 0;
};
