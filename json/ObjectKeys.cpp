#include "json/ObjectKeys.h"

#include <array>
#include <atomic>
#include <string>

#include "foundation/Immortal.h"
#include "foundation/NSString.h"

namespace {

constexpr std::size_t slotsInText = 256;
constexpr std::size_t mostNames = 2048;
constexpr std::size_t sightings = 4096;
// Longer ones are hardly names of members.
constexpr std::size_t longestNameBytes = 64;

using Print = ObjectKeys::Print;

std::uint64_t hashOf(const Print& print) noexcept {
  const std::uint64_t ends =
      (print.first ^ print.sizeBytes) * 0x9E3779B97F4A7C15U ^ print.last * 0xC2B2AE3D27D4EB4FU;
  return (ends ^ ends >> 32) * 0xBF58476D1CE4E5B9U;
}

std::size_t placeIn(std::size_t tableSize, std::uint64_t hash) noexcept {
  return hash >> 32 & (tableSize - 1);
}

/// A name that the process keeps: never changed, never destroyed.
struct Name {
  Print print;
  NSString object;

  bool is(const Print& other, std::string_view key) const noexcept {
    return print == other && (key.size() <= 2 * sizeof print.first || object.text() == key);
  }
};

/// The names that the process keeps. Any thread; nothing in it is ever taken out.
class NameTable {
 public:
  const Name* find(const Print& print, std::string_view key, std::uint64_t hash) const noexcept {
    const std::size_t place = placeIn(mostNames, hash);
    const Name* name = names_[place].load(std::memory_order_acquire);
    if (name && name->is(print, key)) return name;
    name = names_[place ^ 1].load(std::memory_order_acquire);
    return name && name->is(print, key) ? name : nullptr;
  }

  /// Whether a key of this hash was among those met last.
  bool meetsAgain(std::uint64_t hash) noexcept {
    auto& sighting = met_[placeIn(sightings, hash)];
    const auto mark = static_cast<std::uint32_t>(hash | 1);
    if (sighting.load(std::memory_order_relaxed) == mark) return true;
    sighting.store(mark, std::memory_order_relaxed);
    return false;
  }

  /// The name of `key`, or null when both its places are taken.
  const Name* keep(const Print& print, std::string_view key, std::uint64_t hash) {
    const std::size_t place = placeIn(mostNames, hash);
    for (const std::size_t at : {place, place ^ 1}) {
      if (names_[at].load(std::memory_order_relaxed)) continue;
      const Name* taken = nullptr;
      auto* made = new Name{print, NSString(key.data(), key.size())};
      if (names_[at].compare_exchange_strong(taken, made, std::memory_order_acq_rel)) return made;
      delete made;  // another thread was first
      if (taken->is(print, key)) return taken;
    }
    return nullptr;
  }

 private:
  std::array<std::atomic<const Name*>, mostNames> names_{};
  std::array<std::atomic<std::uint32_t>, sightings> met_{};
};

constinit NameTable names;

}  // namespace

id ObjectKeys::objectFor(std::string_view key) {
  if (key.size() > longestNameBytes) return str(std::string(key));
  const Print print(key);
  const std::uint64_t hash = hashOf(print);
  if (const Name* name = names.find(print, key, hash)) return immortal(name->object);
  if (!names.meetsAgain(hash)) return std::make_shared<NSString>(key.data(), key.size());
  if (const Name* name = names.keep(print, key, hash)) return immortal(name->object);
  return objectInText(key, hash);
}

id ObjectKeys::objectInText(std::string_view key, std::uint64_t hash) {
  if (slots_.empty()) slots_.resize(slotsInText);
  Slot& slot = slots_[placeIn(slots_.size(), hash)];
  if (!slot.object || slot.text != key) {
    auto made = std::make_shared<NSString>(key.data(), key.size());
    slot.text = made->text();
    slot.object = std::move(made);
  }
  return slot.object;
}
