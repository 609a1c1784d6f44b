#include <algorithm>

#include <fmt/format.h>

#include "foundation/Unicode.h"
#include "json/QJJsonWriter.h"

std::string QJJsonWriter::indent() const {
  std::string text;
  appendIndent(text);
  return text;
}

void QJJsonWriter::appendIndent(std::string& into) const {
  into += '\n';
  into.append(2 * depth_, ' ');
}

void QJJsonWriter::separate(std::size_t position, std::string& into) const {
  if (position > 0) into += ',';
  if (humanReadable_) appendIndent(into);
}

bool QJJsonWriter::goesDeeper() {
  ++depth_;
  if (maxDepth() == 0 || depth_ <= maxDepth()) return true;
  addErrorWithCode(QJJsonErrorCode::depth, "Nested too deep");
  --depth_;
  return false;
}

QJJsonWriter::Step QJJsonWriter::beginArray(const NSArray& array, std::string& into) {
  if (!goesDeeper()) return Step::failed;
  into += '[';
  OpenValue& open = open_.emplace_back();
  open.array = &array;
  return goOnWithArray(open, into);
}

QJJsonWriter::Step QJJsonWriter::beginDictionary(const NSDictionary& dictionary, std::string& into) {
  if (!goesDeeper()) return Step::failed;
  into += '{';
  OpenValue& open = open_.emplace_back();
  open.dictionary = &dictionary;
  open.firstSorted = sorted_.size();
  if (sortKeys_) sortMembers(dictionary);
  return goOnWithDictionary(open, into);
}

// A key that is no string comes first: it fails the dictionary whatever stands beside it.
void QJJsonWriter::sortMembers(const NSDictionary& dictionary) {
  const auto first = static_cast<std::ptrdiff_t>(sorted_.size());
  for (const auto& entry : dictionary.entries()) sorted_.push_back(&entry);
  std::stable_sort(sorted_.begin() + first, sorted_.end(), [](const auto* left, const auto* right) {
    const std::string* leftKey = textOf(left->first);
    const std::string* rightKey = textOf(right->first);
    if (!leftKey || !rightKey) return !leftKey && rightKey;
    return canonicalCompare(*leftKey, *rightKey) < 0;
  });
}

const NSDictionary::Entries::value_type& QJJsonWriter::member(const OpenValue& open, std::size_t at) const {
  return sortKeys_ ? *sorted_[open.firstSorted + at] : open.dictionary->entries()[at];
}

QJJsonWriter::Step QJJsonWriter::goOn(std::string& into) {
  OpenValue& open = open_.back();
  if (open.array) return goOnWithArray(open, into);
  if (open.dictionary) return goOnWithDictionary(open, into);
  leaveInnermost();  // a proxy ends with its value
  return Step::done;
}

QJJsonWriter::Step QJJsonWriter::goOnWithArray(OpenValue& open, std::string& into) {
  const auto& items = open.array->items();
  if (open.next == items.size()) return end(']', items.empty(), into);
  separate(open.next, into);
  pending_ = items[open.next++].get();
  return Step::needsValue;
}

QJJsonWriter::Step QJJsonWriter::goOnWithDictionary(OpenValue& open, std::string& into) {
  const std::size_t count = open.dictionary->count();
  if (open.next == count) return end('}', count == 0, into);
  separate(open.next, into);
  const auto& [key, value] = member(open, open.next++);
  const std::string* text = textOf(key);
  if (!text) {
    addErrorWithCode(QJJsonErrorCode::unsupported, "JSON object key must be string");
    --depth_;
    leaveInnermost();
    return Step::failed;
  }
  appendQuoted(*text, into);
  into += humanReadable_ ? " : " : ":";
  pending_ = value.get();
  return Step::needsValue;
}

QJJsonWriter::Step QJJsonWriter::end(char bracket, bool isEmpty, std::string& into) {
  --depth_;
  if (humanReadable_ && !isEmpty) appendIndent(into);
  into += bracket;
  leaveInnermost();
  return Step::done;
}

void QJJsonWriter::leaveInnermost() {
  if (open_.back().dictionary) sorted_.resize(open_.back().firstSorted);
  open_.pop_back();
}

// Fails what stands around a failure, from the innermost outwards. A proxy takes the failure: its place stays
// with what could be written, and the value around it goes on. True when that happened.
bool QJJsonWriter::failOpenValues(std::size_t outermost) {
  while (open_.size() > outermost) {
    const OpenValue& open = open_.back();
    const bool isProxy = !open.array && !open.dictionary;
    if (open.dictionary) {
      const std::string key = member(open, open.next - 1).first->description();
      addErrorWithCode(QJJsonErrorCode::unsupported,
                       fmt::format("Unsupported value for key {} in object", key));
    }
    if (!isProxy) --depth_;
    leaveInnermost();
    if (isProxy) return true;
  }
  return false;
}
