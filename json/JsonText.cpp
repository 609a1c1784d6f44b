#include "json/JsonText.h"

#include <bit>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace {

std::uint8_t byteAt(std::string_view text, std::size_t at) noexcept {
  return static_cast<std::uint8_t>(text[at]);
}

bool endsPlainRun(std::uint8_t byte) noexcept { return byte == '"' || byte == '\\' || byte < 0x20; }

constexpr std::uint64_t everyByte(std::uint8_t byte) noexcept { return 0x0101010101010101U * byte; }

/// The high bit of each byte of `word` that is below `bound`. A borrow can mark bytes above the lowest marked
/// one wrongly, never below it.
constexpr std::uint64_t marksBelow(std::uint64_t word, std::uint8_t bound) noexcept {
  return (word - everyByte(bound)) & ~word & everyByte(0x80);
}

/// Marks in `word`, at least for the lowest of them, the bytes that end a plain run.
constexpr std::uint64_t marksEnds(std::uint64_t word) noexcept {
  return marksBelow(word, 0x20) | marksBelow(word ^ everyByte('"'), 1) |
         marksBelow(word ^ everyByte('\\'), 1);
}

template <class Word>
Word load(std::string_view text, std::size_t at) noexcept {
  Word word = 0;
  std::memcpy(&word, text.data() + at, sizeof word);
  return word;
}

/// Copies a word to the same place of `to` and marks its bytes that end a plain run.
template <class Word>
std::uint64_t copyWord(std::string_view text, std::size_t at, char* to) noexcept {
  const auto word = load<Word>(text, at);
  std::memcpy(to + at, &word, sizeof word);
  // What a shorter word leaves of the eight bytes must not look like a control character.
  constexpr std::uint64_t filling = sizeof(Word) < 8 ? everyByte(' ') << 8 * (sizeof(Word) % 8) : 0;
  return marksEnds(word | filling);
}

/// Lets `run` grow by whole blocks of eight bytes; true when it found the end of the run.
bool growByWords(std::string_view text, PlainRun& run) noexcept {
  if constexpr (std::endian::native != std::endian::little) return false;
  while (run.sizeBytes + sizeof(std::uint64_t) <= text.size()) {
    const auto word = load<std::uint64_t>(text, run.sizeBytes);
    const std::uint64_t ends = marksEnds(word);
    if (ends != 0) {
      const int bits = std::countr_zero(ends) & ~7;
      run.isAscii = run.isAscii && (word & everyByte(0x80) & ((std::uint64_t{1} << bits) - 1)) == 0;
      run.sizeBytes += static_cast<std::size_t>(bits) / 8;
      return true;
    }
    run.isAscii = run.isAscii && (word & everyByte(0x80)) == 0;
    run.sizeBytes += sizeof word;
  }
  return false;
}

#ifdef __SSE2__
__m128i blockAt(std::string_view text, std::size_t at) noexcept {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + at));
}

/// A bit for each byte of `block` that ends a plain run.
unsigned endsIn(__m128i block) noexcept {
  const __m128i lastControl = _mm_set1_epi8(0x1F);
  const __m128i isControl = _mm_cmpeq_epi8(_mm_max_epu8(block, lastControl), lastControl);
  const __m128i isQuote = _mm_cmpeq_epi8(block, _mm_set1_epi8('"'));
  const __m128i isBackslash = _mm_cmpeq_epi8(block, _mm_set1_epi8('\\'));
  return static_cast<unsigned>(
      _mm_movemask_epi8(_mm_or_si128(_mm_or_si128(isQuote, isBackslash), isControl)));
}

/// Copies sixteen bytes to the same place of `to` and tells which of them end a plain run.
unsigned copyBlock(std::string_view text, std::size_t at, char* to) noexcept {
  const __m128i block = blockAt(text, at);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to + at), block);
  return endsIn(block);
}

/// growByWords by blocks of sixteen.
bool growByBlocks(std::string_view text, PlainRun& run) noexcept {
  while (run.sizeBytes + sizeof(__m128i) <= text.size()) {
    const __m128i block = blockAt(text, run.sizeBytes);
    const unsigned ends = endsIn(block);
    const auto highBits = static_cast<unsigned>(_mm_movemask_epi8(block));
    if (ends != 0) {
      const auto place = static_cast<unsigned>(std::countr_zero(ends));
      run.isAscii = run.isAscii && (highBits & ((1U << place) - 1)) == 0;
      run.sizeBytes += place;
      return true;
    }
    run.isAscii = run.isAscii && highBits == 0;
    run.sizeBytes += sizeof(__m128i);
  }
  return false;
}
#else
bool growByBlocks(std::string_view, PlainRun&) noexcept { return false; }
#endif

bool isContinuation(std::string_view text, std::size_t at) noexcept {
  return at < text.size() && (byteAt(text, at) & 0xC0) == 0x80;
}

/// The three-byte form at `at` of a high (0xD800) or low (0xDC00) half of a surrogate pair.
bool isHighHalf(std::string_view text, std::size_t at) noexcept {
  return at + 2 < text.size() && byteAt(text, at) == 0xED && (byteAt(text, at + 1) & 0xF0) == 0xA0;
}
bool isLowHalf(std::string_view text, std::size_t at) noexcept {
  return at + 2 < text.size() && byteAt(text, at) == 0xED && (byteAt(text, at + 1) & 0xF0) == 0xB0;
}

/// The length of the well-formed character of two or more bytes at `at`, or 0.
std::size_t characterSize(std::string_view text, std::size_t at) noexcept {
  const std::uint8_t lead = byteAt(text, at);
  if (lead < 0xC2 || lead > 0xF4 || !isContinuation(text, at + 1)) return 0;
  if (lead < 0xE0) return 2;
  const std::uint8_t second = byteAt(text, at + 1);
  if (!isContinuation(text, at + 2)) return 0;
  if (lead < 0xF0) {
    if (lead == 0xE0 && second < 0xA0) return 0;  // overlong
    return isHighHalf(text, at) && isLowHalf(text, at + 3) ? 0 : 3;
  }
  if (lead == 0xF0 && second < 0x90) return 0;  // overlong
  if (lead == 0xF4 && second > 0x8F) return 0;  // beyond U+10FFFF
  return isContinuation(text, at + 3) ? 4 : 0;
}

unsigned halfAt(std::string_view text, std::size_t at) noexcept {
  return 0xD000U | (byteAt(text, at + 1) & 0x3FU) << 6 | (byteAt(text, at + 2) & 0x3FU);
}

}  // namespace

PlainRun plainRun(std::string_view text) noexcept {
  PlainRun run{0, true};
  if (growByBlocks(text, run) || growByWords(text, run)) return run;
  while (run.sizeBytes < text.size() && !endsPlainRun(byteAt(text, run.sizeBytes))) {
    run.isAscii = run.isAscii && byteAt(text, run.sizeBytes) < 0x80;
    ++run.sizeBytes;
  }
  return run;
}

// By blocks of which the last two overlap, so that there is no rest to go through byte by byte.
bool copyPlain(std::string_view text, char* to) noexcept {
  const std::size_t size = text.size();
#ifdef __SSE2__
  if (size >= sizeof(__m128i)) {
    unsigned ends = copyBlock(text, size - sizeof(__m128i), to);
    for (std::size_t at = 0; at + sizeof(__m128i) < size; at += sizeof(__m128i))
      ends |= copyBlock(text, at, to);
    return ends == 0;
  }
#endif
  if (size >= 8) {
    std::uint64_t ends = copyWord<std::uint64_t>(text, size - 8, to);
    for (std::size_t at = 0; at + 8 < size; at += 8) ends |= copyWord<std::uint64_t>(text, at, to);
    return ends == 0;
  }
  if (size >= 4) {
    const std::uint64_t last = copyWord<std::uint32_t>(text, size - 4, to);
    return (copyWord<std::uint32_t>(text, 0, to) | last) == 0;
  }
  bool isPlain = true;
  for (std::size_t at = 0; at < size; ++at) {
    to[at] = text[at];
    isPlain = isPlain && !endsPlainRun(byteAt(text, at));
  }
  return isPlain;
}

bool isGeneralisedUtf8(std::string_view text) noexcept {
  for (std::size_t at = 0; at < text.size();) {
    if (byteAt(text, at) < 0x80) {
      ++at;
      continue;
    }
    const std::size_t size = characterSize(text, at);
    if (size == 0) return false;
    at += size;
  }
  return true;
}

void appendUnit(std::string& text, unsigned unit) {
  if (unit < 0x80) {
    text += static_cast<char>(unit);
  } else if (unit < 0x800) {
    text += static_cast<char>(0xC0 | unit >> 6);
    text += static_cast<char>(0x80 | (unit & 0x3F));
  } else {
    text += static_cast<char>(0xE0 | unit >> 12);
    text += static_cast<char>(0x80 | (unit >> 6 & 0x3F));
    text += static_cast<char>(0x80 | (unit & 0x3F));
  }
}

void joinSurrogateHalves(std::string& text) {
  std::string joined;
  joined.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    if (!isHighHalf(text, at) || !isLowHalf(text, at + 3)) {
      joined += text[at++];
      continue;
    }
    const unsigned character = 0x10000 + ((halfAt(text, at) & 0x3FF) << 10) + (halfAt(text, at + 3) & 0x3FF);
    joined += static_cast<char>(0xF0 | character >> 18);
    joined += static_cast<char>(0x80 | (character >> 12 & 0x3F));
    joined += static_cast<char>(0x80 | (character >> 6 & 0x3F));
    joined += static_cast<char>(0x80 | (character & 0x3F));
    at += 6;
  }
  text = std::move(joined);
}
