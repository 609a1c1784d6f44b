#include "json/QJJsonParser.h"

#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "foundation/NSArray.h"
#include "foundation/NSDictionary.h"
#include "foundation/NSNull.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"

namespace {
// What a call may leave reserved for the next one: enough for an ordinary text, little beside an outsize one.
constexpr std::size_t fewItems = 64;
constexpr std::size_t fewContainers = 8;
constexpr std::size_t keptItems = 16'384;
constexpr std::size_t keptTextBytes = 262'144;
}  // namespace

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
  releaseBuffers();
  if (!object) setError(error, lastError());
  return object;
}

id QJJsonParser::parse(std::string_view text) {
  depth_ = 0;
  arena_.expect(3 * text.size());  // about what the values of a text take
  items_.reserve(fewItems);
  open_.reserve(fewContainers);
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

void QJJsonParser::releaseBuffers() {
  arena_.closeChunk();
  keys_.clear();
  if (items_.capacity() > keptItems) items_ = {};
  if (open_.capacity() > keptItems) open_ = {};
  if (pieces_.capacity() > keptTextBytes) pieces_ = {};
}

// A NUL before the end of the text is not the end.
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

// Nothing is required after a literal: what follows is left to whoever reads on.
bool QJJsonParser::scanRestOfWord(std::string_view rest, std::string_view messageIfNot) {
  if (!remaining().starts_with(rest)) {
    addErrorWithCode(QJJsonErrorCode::syntax, messageIfNot);
    return false;
  }
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

// Elements and members may follow each other without a comma: texts like that are around and have always been
// read.
bool QJJsonParser::passesSeparator(char closing, std::string_view messageIfTrailing) {
  skipWhitespace();
  if (current() != ',') return true;
  ++position_;
  skipWhitespace();
  if (current() != closing) return true;
  failInnermost(QJJsonErrorCode::trailingComma, messageIfTrailing);
  return false;
}

// The end of the text is looked for before white space is skipped: right after the bracket it is the array
// that lacks its end, after a blank it is a value that is missing.
QJJsonParser::Step QJJsonParser::scanRestOfArray() {
  const bool hasElements = items_.size() > open_.back().firstItem;
  if (hasElements && !passesSeparator(']', "Trailing comma disallowed in array")) return Step::failed;
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
  if (hasMembers && !passesSeparator('}', "Trailing comma disallowed in object")) return Step::failed;
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
  items_.push_back(keys_.objectFor(key));
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

// The containers around a failure fail for want of their value, from the innermost outwards.
void QJJsonParser::failOpenContainers() {
  while (!open_.empty()) {
    items_.pop_back();  // the place of what failed
    if (open_.back().isDictionary) {
      const std::string* key = textOf(items_.back());  // the one whose value failed
      failInnermost(QJJsonErrorCode::syntax, fmt::format("Object value expected for key: {}", *key));
    } else {
      failInnermost(QJJsonErrorCode::syntax, "Expected value while parsing array");
    }
  }
}
