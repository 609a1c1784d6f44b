#include "json/QJJsonParser.h"

#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "foundation/NSArray.h"
#include "foundation/NSDictionary.h"
#include "foundation/NSNull.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"

id QJJsonParser::objectWithString(const id& text, NSErrorRef* error) {
  if (const std::string* bytes = textOf(text)) return objectWithString(std::string_view(*bytes), error);
  clearErrorTrace();
  addErrorWithCode(QJJsonErrorCode::noInput, "Input was 'nil'");
  setError(error, lastError());
  return nullptr;
}

id QJJsonParser::objectWithString(std::string_view text, NSErrorRef* error) {
  clearErrorTrace();
  id object = parse(text);
  arena_.closeChunk();
  open_ = {};
  items_ = {};
  unescaped_ = {};
  if (!object) setError(error, lastError());
  return object;
}

id QJJsonParser::parse(std::string_view text) {
  depth_ = 0;
  arena_.expect(3 * text.size());  // roughly the size of a text's values
  position_ = text.data();
  end_ = position_ + text.size();
  id value;
  if (!scanValue(&value)) return nullptr;
  if (!scanIsAtEnd()) {
    addErrorWithCode(QJJsonErrorCode::garbage, "Garbage after JSON");
    return nullptr;
  }
  if (value->kind() != NSKind::dictionary && value->kind() != NSKind::array) {
    addErrorWithCode(QJJsonErrorCode::fragment, "Valid fragment, but not JSON");
    return nullptr;
  }
  return value;
}

// A NUL byte inside the text is not its end.
bool QJJsonParser::scanIsAtEnd() {
  skipWhitespace();
  return position_ == end_;
}

bool QJJsonParser::scanValue(id* value) {
  for (;;) {
    Step step = scanBeginningOfValue(&items_.emplace_back());
    while (step == Step::value && !open_.empty()) {
      step = open_.back().isDictionary ? scanRestOfDictionary() : scanRestOfArray();
    }
    if (step == Step::needsValue) continue;
    if (step == Step::failed) failOpenContainers();
    *value = std::move(items_.back());
    items_.clear();
    return step == Step::value;
  }
}

QJJsonParser::Step QJJsonParser::scanBeginningOfValue(id* value) {
  const auto done = [](bool succeeded) { return succeeded ? Step::value : Step::failed; };
  skipWhitespace();
  const char first = current();
  switch (first) {
    case '[':
    case '{':
      ++position_;
      return openContainer(first == '{');
    case '"': {
      ++position_;
      std::string_view text;
      if (!scanRestOfString(&text)) return Step::failed;
      *value = arena_.make<NSString>(text.data(), text.size());
      return Step::value;
    }
    case 't':
      ++position_;
      return done(scanRestOfTrue(value));
    case 'f':
      ++position_;
      return done(scanRestOfFalse(value));
    case 'n':
      ++position_;
      return done(scanRestOfNull(value));
    case '+':
      addErrorWithCode(QJJsonErrorCode::number, "Leading + disallowed in number");
      return Step::failed;
    case '\0':
      addErrorWithCode(QJJsonErrorCode::endOfInput, "Unexpected end of string");
      return Step::failed;
    default:
      if (first == '-' || (first >= '0' && first <= '9')) return done(scanNumber(value));
      addErrorWithCode(QJJsonErrorCode::syntax, "Unrecognised leading character");
      return Step::failed;
  }
}

// Anything may follow a literal; the caller judges it.
bool QJJsonParser::scanRestOfWord(std::string_view rest, std::string_view messageIfNot) {
  if (!remaining().starts_with(rest)) return fail(QJJsonErrorCode::syntax, messageIfNot);
  position_ += rest.size();
  return true;
}

bool QJJsonParser::scanRestOfTrue(id* value) {
  if (!scanRestOfWord("rue", "Expected 'true'")) return false;
  *value = NSNumber::withBool(true);
  return true;
}

bool QJJsonParser::scanRestOfFalse(id* value) {
  if (!scanRestOfWord("alse", "Expected 'false'")) return false;
  *value = NSNumber::withBool(false);
  return true;
}

bool QJJsonParser::scanRestOfNull(id* value) {
  if (!scanRestOfWord("ull", "Expected 'null'")) return false;
  *value = NSNull::null();
  return true;
}

QJJsonParser::Step QJJsonParser::openContainer(bool isDictionary) {
  ++depth_;
  if (maxDepth() != 0 && depth_ > maxDepth()) {
    addErrorWithCode(QJJsonErrorCode::depth, "Nested too deep");
    return Step::failed;
  }
  open_.push_back({items_.size(), isDictionary});
  return isDictionary ? scanRestOfDictionary() : scanRestOfArray();
}

// The comma is optional: texts without it exist and have always been accepted.
bool QJJsonParser::skipSeparator(char closing, std::string_view messageIfTrailing) {
  skipWhitespace();
  if (current() != ',') return true;
  ++position_;
  skipWhitespace();
  if (current() != closing) return true;
  failInnermost(QJJsonErrorCode::trailingComma, messageIfTrailing);
  return false;
}

// Checks for the end of the text before skipping white space: directly after the bracket the array is
// incomplete, after white space a value is missing. The error traces differ.
QJJsonParser::Step QJJsonParser::scanRestOfArray() {
  const bool hasElements = items_.size() > open_.back().firstItem;
  if (hasElements && !skipSeparator(']', "Trailing comma disallowed in array")) return Step::failed;
  if (current() == '\0') {
    return failInnermost(QJJsonErrorCode::endOfInput, "End of input while parsing array");
  }
  skipWhitespace();
  if (current() != ']') return Step::needsValue;
  ++position_;
  closeArray();
  return Step::value;
}

QJJsonParser::Step QJJsonParser::scanRestOfDictionary() {
  const bool hasMembers = items_.size() > open_.back().firstItem;
  if (hasMembers && !skipSeparator('}', "Trailing comma disallowed in object")) return Step::failed;
  if (current() == '\0') {
    return failInnermost(QJJsonErrorCode::endOfInput, "End of input while parsing object");
  }
  skipWhitespace();
  if (current() != '}') return scanKeyAndColon();
  ++position_;
  closeDictionary();
  return Step::value;
}

QJJsonParser::Step QJJsonParser::scanKeyAndColon() {
  std::string_view key;
  if (current() != '"' || (++position_, !scanRestOfString(&key))) {
    return failInnermost(QJJsonErrorCode::syntax, "Object key string expected");
  }
  skipWhitespace();
  if (current() != ':') {
    return failInnermost(QJJsonErrorCode::syntax, "Expected ':' separating key and value");
  }
  ++position_;
  items_.push_back(arena_.make<NSString>(key.data(), key.size()));
  return Step::needsValue;
}

void QJJsonParser::closeArray() {
  const auto first = items_.begin() + static_cast<std::ptrdiff_t>(open_.back().firstItem);
  std::vector<id> elements(std::make_move_iterator(first), std::make_move_iterator(items_.end()));
  leaveInnermost();
  items_.back() = arena_.make<NSArray>(std::move(elements));
}

void QJJsonParser::closeDictionary() {
  NSDictionary::Entries entries;
  entries.reserve((items_.size() - open_.back().firstItem) / 2);
  for (std::size_t at = open_.back().firstItem; at < items_.size(); at += 2) {
    entries.emplace_back(std::move(items_[at]), std::move(items_[at + 1]));
  }
  leaveInnermost();
  items_.back() = arena_.make<NSDictionary>(std::move(entries));
}

void QJJsonParser::leaveInnermost() {
  items_.resize(open_.back().firstItem);
  open_.pop_back();
  --depth_;
}

QJJsonParser::Step QJJsonParser::failInnermost(QJJsonErrorCode code, std::string_view message) {
  addErrorWithCode(code, message);
  leaveInnermost();
  return Step::failed;
}

// Each container around a failed value fails too and adds its error, from the innermost outwards.
void QJJsonParser::failOpenContainers() {
  while (!open_.empty()) {
    items_.pop_back();  // the failed value's place
    if (open_.back().isDictionary) {
      const std::string* key = textOf(items_.back());  // the failed value's key
      failInnermost(QJJsonErrorCode::syntax, fmt::format("Object value expected for key: {}", *key));
    } else {
      failInnermost(QJJsonErrorCode::syntax, "Expected value while parsing array");
    }
  }
}
