#include "foundation/NSDictionary.h"

#include <string>

#include "foundation/ContainerTeardown.h"
#include "foundation/NSString.h"

namespace {
constexpr std::size_t largestWithoutIndex = 16;
constexpr std::size_t absent = static_cast<std::size_t>(-1);
}  // namespace

NSDictionary::NSDictionary(Entries entries) {
  entries_.reserve(entries.size());
  for (auto& [key, value] : entries) {
    if (const std::size_t at = find(*key); at != absent) {
      entries_[at].second = std::move(value);
      continue;
    }
    entries_.emplace_back(std::move(key), std::move(value));
    if (entries.size() > largestWithoutIndex)
      index_.emplace(entries_.back().first->hash(), entries_.size() - 1);
  }
}

NSDictionary::~NSDictionary() {
  std::vector<id> values;
  values.reserve(entries_.size());
  for (auto& [key, value] : entries_) values.push_back(std::move(value));
  releaseInTurn(std::move(values));
}

std::shared_ptr<NSDictionary> NSDictionary::with(
    std::initializer_list<std::pair<std::string_view, id>> entries) {
  Entries made;
  made.reserve(entries.size());
  for (const auto& [key, value] : entries) {
    if (value) made.emplace_back(str(std::string(key)), value);
  }
  return std::make_shared<NSDictionary>(std::move(made));
}

std::size_t NSDictionary::find(const NSObject& key) const {
  if (!index_.empty()) {
    const auto [first, last] = index_.equal_range(key.hash());
    for (auto candidate = first; candidate != last; ++candidate) {
      if (entries_[candidate->second].first->isEqual(key)) return candidate->second;
    }
    return absent;
  }
  for (std::size_t at = 0; at < entries_.size(); ++at) {
    const NSObject& candidate = *entries_[at].first;
    if (&candidate == &key || candidate.isEqual(key)) return at;
  }
  return absent;
}

id NSDictionary::objectForKey(const NSObject& key) const {
  const std::size_t at = find(key);
  return at == absent ? nullptr : entries_[at].second;
}

id NSDictionary::objectForKey(std::string_view key) const {
  if (!index_.empty()) return objectForKey(NSString(std::string(key)));
  for (const auto& [candidate, value] : entries_) {
    const std::string* text = textOf(candidate);
    if (text && *text == key) return value;
  }
  return nullptr;
}

bool NSDictionary::isEqual(const NSObject& other) const {
  const auto* dictionary = as<NSDictionary>(&other);
  if (!dictionary || dictionary->count() != count()) return false;
  for (const auto& [key, value] : entries_) {
    if (!::isEqual(value, dictionary->objectForKey(*key))) return false;
  }
  return true;
}

std::string NSDictionary::description() const {
  std::string text = "{";
  for (const auto& [key, value] : entries_) {
    if (text.size() > 1) text += "; ";
    text += key->description() + " = " + (value ? value->description() : "<none>");
  }
  return text + "}";
}
