#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "foundation/NSObject.h"

/// Gives the same string object for the same object key, so that a listing of ten thousand items holds each
/// key once. A key that is met again, in the same text or a later one, is taken as the name of a member: such
/// names are kept for the life of the process and cost neither memory nor counting any more. There is room
/// for some two thousand; what comes later is shared within its own text only, so that no text can make the
/// process grow.
///
/// One thread at a time each; what they share needs no lock.
class ObjectKeys {
 public:
  /// The string object of `key`.
  id objectFor(std::string_view key);
  /// Lets go of the keys of the last text.
  void clear() noexcept { slots_.clear(); }

  /// What tells short keys apart and finds their place: the length and both ends.
  struct Print {
    explicit Print(std::string_view key) noexcept : sizeBytes(key.size()) {
      const char* const end = key.data() + sizeBytes;
      if (sizeBytes >= 8) {
        first = load<std::uint64_t>(key.data());
        last = load<std::uint64_t>(end - 8);
      } else if (sizeBytes >= 4) {
        first = load<std::uint32_t>(key.data());
        last = load<std::uint32_t>(end - 4);
      } else {
        for (const char byte : key) first = first << 8 | static_cast<unsigned char>(byte);
      }
    }
    template <class Word>
    static std::uint64_t load(const char* bytes) noexcept {
      Word word = 0;
      std::memcpy(&word, bytes, sizeof word);
      return word;
    }
    bool operator==(const Print&) const = default;

    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::size_t sizeBytes;
  };

 private:
  struct Slot {
    id object;
    std::string_view text;  // of `object`
  };
  id objectInText(std::string_view key, std::uint64_t hash);

  std::vector<Slot> slots_;  // of the last text: keys by hash, a later one in the place of an earlier
};
