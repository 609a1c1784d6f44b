#pragma once
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSError.h"
#include "foundation/NSObject.h"
#include "json/ObjectArena.h"
#include "json/QJJsonBase.h"

/// Reads JSON (RFC 8259) into NSDictionary, NSArray, NSString, NSNumber, NSDecimalNumber and NSNull.
///
/// Stricter than the RFC: the outermost value must be an array or an object. More lenient, on purpose: commas
/// between elements and members are optional, anything may follow a literal directly, and vertical tab and
/// form feed are white space. Numbers without fraction and exponent that fit 64 bits are integers, all others
/// decimals; -9223372036854775808 is a decimal, because its absolute value does not fit. An escaped surrogate
/// pair becomes one 16-bit unit, the lowest 16 bits of the character: characters beyond the basic plane do
/// not survive as escapes (as raw UTF-8 they do).
///
/// The text may hold any bytes. A NUL byte ends it, as it does for readers of C strings, and a complete value
/// followed by a NUL is refused as garbage: two readers can never see two different values. Bytes inside a
/// string that are not UTF-8 are "Broken unicode character"; outside strings any byte above 127, also a
/// byte-order mark, is an "Unrecognised leading character". Half of a surrogate pair in its three-byte form
/// is accepted, because NSString can hold it and the writer writes it.
///
/// Nesting uses heap memory, not the stack. Reusable.
/// Threads: as QJJsonBase. Never blocks.
class QJJsonParser : public QJJsonBase {
 public:
  /// Reads `text`, which needs no terminating NUL and may be freed afterwards.
  /// @param error  may be null; on failure gets the last, outermost, error of errorTrace().
  /// @return an NSDictionary or NSArray, or nothing on failure: errorTrace() says why.
  id objectWithString(std::string_view text, NSErrorRef* error = nullptr);
  /// The same for a string object. Anything else, also an empty reference, fails with "Input was 'nil'".
  id objectWithString(const id& text, NSErrorRef* error = nullptr);
  id objectWithString(std::nullptr_t, NSErrorRef* error = nullptr) { return objectWithString(id(), error); }

 private:
  struct OpenContainer {
    std::size_t
        firstItem;  // index in items_ of its first element, or of its first key (then value, key, ...)
    bool isDictionary;
  };
  enum class Step : unsigned char {
    failed,      // the error is in the trace
    value,       // a complete value has been read
    needsValue,  // the innermost open container expects a value next
  };

  id parse(std::string_view text);

  // The scanners start at position_ and advance it past what they read. After false or `failed` the error is
  // in the trace.
  bool scanValue(id* value);
  Step scanBeginningOfValue(id* value);
  bool scanRestOfTrue(id* value);
  bool scanRestOfFalse(id* value);
  bool scanRestOfNull(id* value);
  Step scanRestOfArray();
  Step scanRestOfDictionary();
  Step scanKeyAndColon();
  bool scanRestOfString(std::string_view* text);
  bool scanEscapedString();
  bool scanEscape(bool* hasFoldedPair);
  bool scanUnicodeEscape(bool* hasFoldedPair);
  bool scanUnicodeChar(char16_t* unit, bool* hasFoldedPair);
  bool foldSurrogatePair(char16_t* unit);
  bool scanHexQuad(char16_t* unit);
  bool scanNumber(id* number);
  bool scanWholePart();
  bool scanFraction();
  bool scanExponent();
  bool scanDigits(std::string_view messageIfNone);
  bool scanIsAtEnd();

  bool scanRestOfWord(std::string_view rest, std::string_view messageIfNot);
  bool failAtByte(QJJsonErrorCode code, std::string_view format, char byte);
  Step openContainer(bool isDictionary);
  void closeArray();
  void closeDictionary();
  bool skipSeparator(char closing, std::string_view messageIfTrailing);
  Step failInnermost(QJJsonErrorCode code, std::string_view message);
  void failOpenContainers();
  void leaveInnermost();

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
  // The items of all open containers, outermost first. A value has its place as soon as it begins, a
  // container before its items.
  std::vector<id> items_;
  std::string unescaped_;  // the string that is being read, if it holds escapes
  ObjectArena arena_;
};
