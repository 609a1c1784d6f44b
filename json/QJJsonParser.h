#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSError.h"
#include "foundation/NSObject.h"
#include "json/ObjectArena.h"
#include "json/ObjectKeys.h"
#include "json/QJJsonBase.h"

/// Reads JSON (RFC 8259) into NSDictionary, NSArray, NSString, NSNumber, NSDecimalNumber and NSNull.
///
/// Stricter than the RFC: the outermost value must be an array or an object. More lenient, and meant so:
/// elements and members need no comma between them, a literal may be followed directly by anything, vertical
/// tab and form feed count as white space. Numbers without fraction and exponent that fit 64 bits are
/// integers, all others decimals; -9223372036854775808 is a decimal, its absolute value being the first that
/// does not fit. A pair of \u surrogates becomes one 16-bit unit, the lowest 16 bits of the character:
/// characters beyond the basic plane do not survive as escapes (as raw UTF-8 they do).
///
/// The text is taken as bytes and may hold anything. A NUL byte is where the text ends for whoever reads it
/// as a C string; so that no two readers can disagree about one text, what stands before it is judged as if
/// the text ended there, and a whole value before it is still refused (garbage). Bytes inside a string that
/// are not UTF-8 are "Broken unicode character"; outside strings nothing above 127 has a meaning, so that a
/// byte-order mark is an "Unrecognised leading character". Half of a surrogate pair in three bytes is let in,
/// as NSString can hold it and the writer writes it.
///
/// Nesting uses memory, never the stack. Reusable.
/// Threads: as QJJsonBase. Never blocks.
class QJJsonParser : public QJJsonBase {
 public:
  /// Reads `text`, which need not end in a NUL and is not kept.
  /// @param error  may be null; on failure gets the last, outermost, error of errorTrace().
  /// @return an NSDictionary or NSArray, or nothing on failure: errorTrace() says why.
  id objectWithString(std::string_view text, NSErrorRef* error = nullptr);
  /// The same for a string object. An empty reference, or an object that is no string, is the failure "Input
  /// was 'nil'".
  id objectWithString(const id& text, NSErrorRef* error = nullptr);
  id objectWithString(std::nullptr_t, NSErrorRef* error = nullptr) { return objectWithString(id(), error); }

 private:
  /// An array or object that has begun and not ended.
  struct OpenContainer {
    std::size_t firstItem;  // where its elements, or its keys and values in turn, begin in items_
    bool isDictionary;
  };
  /// What a step of an open container, or the beginning of a value, came to.
  enum class Step : unsigned char {
    failed,      // its error is in the trace
    value,       // a whole value has been read
    needsValue,  // the innermost open container goes on with a value
  };

  id parse(std::string_view text);

  // The scanners. Each starts at position_ and leaves it after what it took; false or `failed` means that it
  // has added its error to the trace.
  bool scanValue(id* value);
  Step scanBeginningOfValue(id* value);
  bool scanRestOfTrue(id* value);
  bool scanRestOfFalse(id* value);
  bool scanRestOfNull(id* value);
  Step scanRestOfArray();
  Step scanRestOfDictionary();
  Step scanKeyAndColon();
  bool scanRestOfString(std::string_view* text);
  bool scanStringPieces();
  bool scanEscape();
  bool scanUnicodeEscape();
  bool scanUnicodeChar(unsigned* unit);
  bool foldSurrogatePair(unsigned* unit);
  bool scanHexQuad(unsigned* unit);
  bool scanNumber(id* number);
  bool scanWholePart();
  bool scanFraction();
  bool scanExponent();
  bool scanDigits(std::string_view messageIfNone);
  bool scanIsAtEnd();
  id integer(std::int64_t value);

  bool scanRestOfWord(std::string_view rest, std::string_view messageIfNot);
  Step openContainer(bool isDictionary);
  void closeArray();
  void closeDictionary();
  bool passesSeparator(char closing, std::string_view messageIfTrailing);
  Step failInnermost(QJJsonErrorCode code, std::string_view message);
  void failOpenContainers();
  void leaveInnermost();
  void releaseBuffers();

  char current() const noexcept { return position_ < end_ ? *position_ : '\0'; }
  std::string_view remaining() const noexcept {
    return {position_, static_cast<std::size_t>(end_ - position_)};
  }
  void skipWhitespace() noexcept {
    while (position_ < end_ && (*position_ == ' ' || (*position_ >= '\t' && *position_ <= '\r'))) ++position_;
  }

  const char* position_ = nullptr;
  const char* end_ = nullptr;
  std::vector<OpenContainer> open_;
  // What has been read of all open containers, outermost first. Each value that has begun has its place here
  // already, a container before its items.
  std::vector<id> items_;
  std::string pieces_;  // the string that is being put together
  bool hasFoldedUnit_ = false;
  ObjectKeys keys_;
  ObjectArena arena_;
};
