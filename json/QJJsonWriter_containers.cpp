#include <algorithm>

#include <fmt/format.h>

#include "foundation/Unicode.h"
#include "json/QJJsonWriter.h"

namespace {

/// In a large tree the objects are not in the cache: their turn comes sooner than their memory.
void fetchAhead(const NSObject* object) noexcept {
#ifdef __GNUC__
  __builtin_prefetch(object);
  __builtin_prefetch(reinterpret_cast<const char*>(object) + 64);
#endif
}

}  // namespace

std::string QJJsonWriter::indent() const { return "\n" + std::string(2 * depth_, ' '); }

void QJJsonWriter::addIndent(JsonOutput& into) const {
  into.add('\n');
  into.addRepeated(2 * depth_, ' ');
}

void QJJsonWriter::separate(std::size_t position, JsonOutput& into) {
  if (into.sizeBytes() >= estimateAtBytes_) reserveForRest(into);
  if (position > 0) into.add(',');
  if (humanReadable_) addIndent(into);
}

// A large text that grows by doubling is copied as often and touches twice its memory. How far the widest
// open container has come tells how long the text is going to be.
void QJJsonWriter::reserveForRest(JsonOutput& into) {
  constexpr std::size_t nextEstimate = 8;  // times as long
  constexpr std::size_t mostAheadBytes = 64UL << 20;
  estimateAtBytes_ = into.sizeBytes() * nextEstimate;
  const auto widest = std::max_element(open_.begin(), open_.end(), [](const auto& left, const auto& right) {
    return left.count() < right.count();
  });
  if (widest == open_.end() || widest->next == 0) return;
  const std::size_t itemBytes = into.sizeBytes() / widest->next + 1;
  const std::size_t itemsLeft = widest->count() - widest->next;
  const std::size_t aheadBytes =
      itemsLeft < mostAheadBytes / itemBytes ? itemsLeft * itemBytes : mostAheadBytes;
  into.foresee(aheadBytes + aheadBytes / 16);
}

bool QJJsonWriter::goesDeeper() {
  ++depth_;
  if (maxDepth() == 0 || depth_ <= maxDepth()) return true;
  addErrorWithCode(QJJsonErrorCode::depth, "Nested too deep");
  --depth_;
  return false;
}

QJJsonWriter::Step QJJsonWriter::beginArray(const NSArray& array, JsonOutput& into) {
  if (!goesDeeper()) return Step::failed;
  into.add('[');
  OpenValue& open = open_.emplace_back();
  open.array = &array;
  return goOnWithArray(open, into);
}

QJJsonWriter::Step QJJsonWriter::beginDictionary(const NSDictionary& dictionary, JsonOutput& into) {
  if (!goesDeeper()) return Step::failed;
  into.add('{');
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

QJJsonWriter::Step QJJsonWriter::goOn(JsonOutput& into) {
  OpenValue& open = open_.back();
  if (open.array) return goOnWithArray(open, into);
  if (open.dictionary) return goOnWithDictionary(open, into);
  leaveInnermost();  // a proxy ends with its value
  return Step::done;
}

QJJsonWriter::Step QJJsonWriter::goOnWithArray(OpenValue& open, JsonOutput& into) {
  const auto& items = open.array->items();
  if (open.next == items.size()) return end(']', items.empty(), into);
  separate(open.next, into);
  pending_ = items[open.next++].get();
  if (open.next < items.size()) fetchAhead(items[open.next].get());
  return Step::needsValue;
}

QJJsonWriter::Step QJJsonWriter::goOnWithDictionary(OpenValue& open, JsonOutput& into) {
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
  into.addQuoted(*text);
  into.add(humanReadable_ ? " : " : ":");
  pending_ = value.get();
  const auto& entries = open.dictionary->entries();
  if (open.next + 3 < count) fetchAhead(entries[open.next + 3].second.get());
  return Step::needsValue;
}

QJJsonWriter::Step QJJsonWriter::end(char bracket, bool isEmpty, JsonOutput& into) {
  --depth_;
  if (humanReadable_ && !isEmpty) addIndent(into);
  into.add(bracket);
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
