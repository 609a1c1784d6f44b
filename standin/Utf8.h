#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include <unicode/utf8.h>

namespace kzv::standin {

// ICU's macros narrow integers, against -Wconversion; they are used only here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"

/// @return the code point at byte `at`, which is advanced; negative when malformed.
inline UChar32 nextCodePoint(std::string_view text, std::int32_t& at) {
  UChar32 c = 0;
  U8_NEXT(text.data(), at, static_cast<std::int32_t>(text.size()), c);
  return c;
}

inline void appendCodePoint(std::string& out, UChar32 c) {
  std::array<char, U8_MAX_LENGTH> bytes{};
  std::int32_t count = 0;
  U8_APPEND_UNSAFE(bytes.data(), count, c);
  out.append(bytes.data(), static_cast<std::size_t>(count));
}

#pragma GCC diagnostic pop

}  // namespace kzv::standin
