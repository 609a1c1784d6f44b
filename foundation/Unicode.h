#pragma once
#include <string>
#include <string_view>

/// Unicode operations on UTF-8, independent of the locale. Any thread. Bytes that are not valid UTF-8 are
/// kept as they are: file names on disk can hold them.

/// Full Unicode lower-case mapping (the root locale's), for texts that people read; the length may change. It
/// depends on the neighbours of a character, so it makes no keys: see caselessKey. Plain ASCII takes a fast
/// path.
std::string lowercased(std::string_view text);
/// The key under which the service compares names and paths: composed (Normalization Form C), then each code
/// point on its own mapped to lower case (the simple mapping of Unicode's character database), so that a
/// final sigma becomes σ and İ becomes i. For comparing and looking up, not for showing.
std::string caselessKey(std::string_view text);
/// Normalization Form D (Unicode Standard Annex 15).
std::string canonicallyDecomposed(std::string_view text);
/// Normalization Form C, the form in which the service keeps names.
std::string canonicallyComposed(std::string_view text);
/// Less than, equal to or greater than 0: canonical equivalence first (composed equals decomposed), then the
/// order of the canonical forms by UTF-16 code unit. 0 only for equivalent texts, also where they are not
/// UTF-8.
int canonicalCompare(std::string_view left, std::string_view right);
bool isValidUtf8(std::string_view text) noexcept;
