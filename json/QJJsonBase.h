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
  unsupported = 1,       ///< the writer met a value or a key that JSON cannot express
  number = 2,            ///< a number is malformed, or out of a decimal's range
  syntax = 3,            ///< something else stands where a value, a key or a colon must
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

/// What the JSON reader and writer share: the trace of errors of the last call, and the bound on nesting.
///
/// Threads: one reader or writer serves one thread at a time; only errorTrace() may be called from another
/// thread meanwhile.
class QJJsonBase : public NSObject {
 public:
  using Observer = std::function<void()>;

  /// The errors of the last call as an array of NSError, innermost first, so that the last one is the
  /// outermost; empty reference when there are none. A snapshot: it does not change when errors are added.
  /// Any thread.
  std::shared_ptr<NSArray> errorTrace() const;

  /// The deepest accepted nesting of arrays and objects, 512 unless set otherwise; 0 means no limit. Without
  /// a limit memory grows with the nesting (a refused text costs about 0.5 KB a level, for its chain of
  /// errors), the stack does not.
  std::size_t maxDepth() const noexcept { return maxDepth_; }
  void setMaxDepth(std::size_t depth) noexcept { maxDepth_ = depth; }

  /// Appends an error of QJJSONErrorDomain with `description` under NSLocalizedDescriptionKey and, when the
  /// trace holds an error already, its last one under NSUnderlyingErrorKey. Observers are told before and
  /// after.
  void addErrorWithCode(QJJsonErrorCode code, std::string_view description);
  /// Drops the trace. Observers are told before and after, also when there was none.
  void clearErrorTrace();

  /// Registers two callbacks (each may be empty) for changes of errorTrace: `willChange` runs before a
  /// change, `didChange` after it, both on the thread that changes it. They may read errorTrace() and add or
  /// remove observers; they must not throw.
  /// @return a token for removeErrorTraceObserver, never 0.
  std::size_t addErrorTraceObserver(Observer willChange, Observer didChange);
  /// An unknown token is ignored. An observer that is removed during a change is not told of it any more.
  void removeErrorTraceObserver(std::size_t token);

 protected:
  QJJsonBase() = default;

  /// The last (outermost) error of the trace, or nothing.
  NSErrorRef lastError() const;

  /// Arrays and objects that are open at this moment of a call. Counted with and without a limit.
  std::size_t depth_ = 0;

 private:
  struct Registration {
    std::size_t token;
    Observer willChange;
    Observer didChange;
  };
  template <class Change>
  void changeErrorTrace(Change change);
  void tellObservers(Observer Registration::*moment) noexcept;

  std::size_t maxDepth_ = 512;
  mutable std::mutex errorTraceMutex_;
  std::vector<NSErrorRef> errorTrace_;  // guarded by errorTraceMutex_
  std::vector<std::shared_ptr<Registration>> observers_;
  std::size_t lastToken_ = 0;
};
