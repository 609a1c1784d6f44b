#include "foundation/NSDictionary.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "foundation/ContainerTeardown.h"
#include "foundation/NSString.h"

namespace {

constexpr std::size_t largestWithoutIndex = 16;
constexpr std::size_t absent = static_cast<std::size_t>(-1);

std::uint64_t mixed(std::uint64_t bits) { return (bits ^ bits >> 32) * 0x9E3779B97F4A7C15U; }

/// A cheap hash: of a string only its length, first and last 8 bytes. Equal keys have equal fingerprints.
std::uint64_t fingerprintOf(const NSObject& key) {
  const auto* string = as<NSString>(&key);
  if (!string) return mixed(key.hash());
  const std::string& text = string->text();
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  if (text.size() >= sizeof first) {
    std::memcpy(&first, text.data(), sizeof first);
    std::memcpy(&last, text.data() + text.size() - sizeof last, sizeof last);
  } else {
    for (const char byte : text) first = first << 8 | static_cast<unsigned char>(byte);
  }
  return mixed(mixed(first ^ text.size()) + last);
}

}  // namespace

NSDictionary::NSDictionary(Entries entries) : entries_(std::move(entries)) {
  if (entries_.size() <= largestWithoutIndex) {
    mergeEqualKeysByScan();
  } else {
    mergeEqualKeysByIndex();
  }
}

NSDictionary::~NSDictionary() { ContainerTeardown::release(entries_); }

void NSDictionary::mergeEqualKeysByScan() {
  std::array<std::uint64_t, largestWithoutIndex> fingerprints;
  std::uint64_t seen = 0;  // one bit per value of a fingerprint's top 6 bits: clear if not seen before
  bool merged = false;
  for (std::size_t at = 0; at < entries_.size(); ++at) {
    fingerprints[at] = fingerprintOf(*entries_[at].first);
    const std::uint64_t bit = std::uint64_t{1} << (fingerprints[at] >> 58);
    for (std::size_t earlier = 0; (seen & bit) != 0 && earlier < at; ++earlier) {
      if (fingerprints[earlier] != fingerprints[at] || !entries_[earlier].first) continue;
      if (!entries_[earlier].first->isEqual(*entries_[at].first)) continue;
      entries_[earlier].second = std::move(entries_[at].second);
      entries_[at].first = nullptr;
      merged = true;
      break;
    }
    seen |= bit;
  }
  if (merged) dropMerged();
}

void NSDictionary::dropMerged() {
  std::erase_if(entries_, [](const auto& entry) { return !entry.first; });
}

bool NSDictionary::comesBefore(const Slot& slot, std::size_t hash, const NSObject& key) const {
  if (slot.hash != hash) return slot.hash < hash;
  const auto* left = as<NSString>(entries_[slot.place].first.get());
  const auto* right = as<NSString>(&key);
  if (!left || !right) return !left && right;
  return left->text() < right->text();
}

void NSDictionary::buildIndex() {
  index_ = std::make_unique<Index>();
  index_->reserve(entries_.size());
  for (const auto& [key, value] : entries_) {
    index_->push_back({key->hash(), static_cast<std::uint32_t>(index_->size())});
  }
  std::sort(index_->begin(), index_->end(), [this](const Slot& left, const Slot& right) {
    if (comesBefore(left, right.hash, *entries_[right.place].first)) return true;
    return !comesBefore(right, left.hash, *entries_[left.place].first) && left.place < right.place;
  });
}

std::size_t NSDictionary::equalSlotBefore(std::size_t end, const Slot& slot) const {
  const NSObject& key = *entries_[slot.place].first;
  for (std::size_t at = end; at > 0 && (*index_)[at - 1].hash == slot.hash; --at) {
    if (entries_[(*index_)[at - 1].place].first->isEqual(key)) return at - 1;
    if (key.kind() == NSKind::string) break;  // equal strings are adjacent
  }
  return end;
}

void NSDictionary::mergeEqualKeysByIndex() {
  buildIndex();
  std::size_t kept = 0;
  for (const Slot& slot : *index_) {
    const std::size_t equal = equalSlotBefore(kept, slot);
    auto& [key, value] = entries_[slot.place];
    if (equal == kept) {
      (*index_)[kept++] = slot;
    } else {
      entries_[(*index_)[equal].place].second = std::move(value);
      key = nullptr;
    }
  }
  if (kept == entries_.size()) return;
  dropMerged();
  buildIndex();
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
  if (index_) {
    const std::size_t hash = key.hash();
    const auto first = std::partition_point(index_->begin(), index_->end(),
                                            [&](const Slot& slot) { return comesBefore(slot, hash, key); });
    for (auto slot = first; slot != index_->end() && slot->hash == hash; ++slot) {
      if (entries_[slot->place].first->isEqual(key)) return slot->place;
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
  if (index_) return objectForKey(NSString(std::string(key)));
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
