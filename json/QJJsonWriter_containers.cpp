#include <algorithm>

#include <fmt/format.h>

#include "foundation/Unicode.h"
#include "json/JsonText.h"
#include "json/QJJsonWriter.h"

std::string QJJsonWriter::indent() const { return "\n" + std::string(2 * depth_, ' '); }

void QJJsonWriter::beginItem(std::size_t index, std::string& into) const {
  if (index > 0) into += ',';
  if (humanReadable_) into += indent();
}

bool QJJsonWriter::beginContainer(OpenValue container, char bracket, std::string& into) {
  if (maxDepth() != 0 && depth_ >= maxDepth()) return fail(QJJsonErrorCode::depth, "Nested too deep");
  ++depth_;
  into += bracket;
  container.firstSorted = sorted_.size();
  if (container.dictionary && sortKeys_) sortMembers(*container.dictionary);
  open_.push_back(std::move(container));
  return true;
}

// Keys that are not strings sort first: they make the dictionary fail, whatever else it holds.
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

bool QJJsonWriter::continueInnermost(std::string& into) {
  const OpenValue& open = open_.back();
  return open.array ? continueArray(into) : open.dictionary ? continueDictionary(into) : continueProxy(into);
}

bool QJJsonWriter::continueArray(std::string& into) {
  const std::size_t level = open_.size();
  const auto& items = open_.back().array->items();
  while (open_.back().next < items.size()) {
    const std::size_t index = open_.back().next++;
    beginItem(index, into);
    if (!beginValue(items[index].get(), into)) return false;
    if (open_.size() > level) return true;
  }
  endContainer(']', items.empty(), into);
  return true;
}

bool QJJsonWriter::continueDictionary(std::string& into) {
  const std::size_t level = open_.size();
  const std::size_t count = open_.back().dictionary->count();
  while (open_.back().next < count) {
    const std::size_t index = open_.back().next++;
    beginItem(index, into);
    const auto& [key, value] = member(open_.back(), index);
    const std::string* text = textOf(key);
    if (!text) {
      --depth_;
      leaveInnermost();
      return fail(QJJsonErrorCode::unsupported, "JSON object key must be string");
    }
    appendQuoted(*text, into);
    into += humanReadable_ ? " : " : ":";
    if (!beginValue(value.get(), into)) return false;
    if (open_.size() > level) return true;
  }
  endContainer('}', count == 0, into);
  return true;
}

bool QJJsonWriter::continueProxy(std::string& into) {
  OpenValue& open = open_.back();
  if (open.next++ == 0) return beginValue(open.proxy.get(), into);
  leaveInnermost();
  return true;
}

void QJJsonWriter::endContainer(char bracket, bool isEmpty, std::string& into) {
  --depth_;
  if (humanReadable_ && !isEmpty) into += indent();
  into += bracket;
  leaveInnermost();
}

void QJJsonWriter::leaveInnermost() {
  if (open_.back().dictionary) sorted_.resize(open_.back().firstSorted);
  open_.pop_back();
}

// Closes the open values around a failure, from the innermost outwards; each dictionary adds its error. A
// proxy stops this: its partial text stays and the value around it continues. True when that happened.
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
