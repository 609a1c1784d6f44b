#pragma once
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kzv::cli {

/// Texts for people and for scripts. Any thread.

/// stringFromByteCount for unsigned sizes.
std::string byteCount(std::uint64_t bytes);
/// "2024-05-01 09:30" in the user's time zone.
std::string localTime(std::chrono::system_clock::time_point time);
/// "0:07", "12:05", "1:02:05".
std::string duration(std::chrono::seconds time);

/// `text` made safe to print on a terminal: control characters (C0, DEL, C1), marks that change the writing
/// direction, and invalid UTF-8 bytes become \n, \t, \r or \xNN (one per byte).
std::string harmless(std::string_view text);
/// `text` with each invalid UTF-8 byte replaced by U+FFFD: JSON texts must be valid.
std::string validUtf8(std::string_view text);

/// A typed path in normal form: absolute, without empty, "." and ".." components and without a slash at its
/// end. Nothing when it is not valid UTF-8 or leads above the root.
/// @param folder  the folder of relative paths, in normal form.
std::optional<std::string> remotePath(std::string_view typed, std::string_view folder = "/");

}  // namespace kzv::cli
