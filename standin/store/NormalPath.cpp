#include "standin/store/NormalPath.h"

#include <algorithm>
#include <array>

#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>

#include "standin/Invariant.h"
#include "standin/Utf8.h"

namespace kzv::standin {
namespace {

constexpr std::size_t kMaxNameUnits = 255;

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// Length in UTF-16 units: a character beyond U+FFFF counts double towards the limit, as it does at the
// service. Absent when a character is not allowed at all.
std::optional<std::size_t> countUnits(std::string_view name, const PathOptions& options) {
  std::size_t units = 0;
  const auto length = static_cast<std::int32_t>(name.size());
  for (std::int32_t i = 0; i < length;) {
    const UChar32 c = nextCodePoint(name, i);
    // The one known name with a control character, "icon\r", is checked by the caller.
    if (c < 0 || c == '\\' || c == 0x7F || (c < 0x20 && c != '\r')) return std::nullopt;
    if (c > 0xFFFF && options.refuseBeyondBmp) return std::nullopt;
    units += c > 0xFFFF ? 2 : 1;
  }
  return units;
}

bool isWellFormedName(std::string_view name, const PathOptions& options) {
  if (name.empty() || name == "." || name == ".." || name.back() == ' ') return false;
  const auto units = countUnits(name, options);
  if (!units || *units > kMaxNameUnits) return false;
  return name.find('\r') == std::string_view::npos || lowerCased(name) == "icon\r";
}

bool isDisallowedName(std::string_view lowerName) {
  constexpr std::array<std::string_view, 7> names{"desktop.ini", "thumbs.db",     ".ds_store",     "icon\r",
                                                  ".dropbox",    ".dropbox.attr", ".dropbox.cache"};
  if (std::find(names.begin(), names.end(), lowerName) != names.end()) return true;
  if (startsWith(lowerName, "~$") || startsWith(lowerName, ".~")) return true;
  return startsWith(lowerName, "~") && endsWith(lowerName, ".tmp");
}

bool endsInWhiteSpaceOrSlash(std::string_view text) {
  const char last = text.back();
  if (last == '/' || last == ' ' || last == '\t' || last == '\n') return true;
  return last == '\r' && lowerCased(nameOf(text)) != "icon\r";
}

// Splits at slashes, drops empty components. Absent when a component is not well formed.
std::optional<std::string> joinedComponents(std::string_view nfc, const PathOptions& options) {
  std::string joined;
  while (!nfc.empty()) {
    nfc.remove_prefix(1);
    const auto end = nfc.find('/');
    const std::string_view name = nfc.substr(0, end);
    nfc = end == std::string_view::npos ? std::string_view() : nfc.substr(end);
    if (name.empty()) continue;
    if (!isWellFormedName(name, options)) return std::nullopt;
    joined += '/';
    joined += name;
  }
  return joined;
}

}  // namespace

std::string_view NormalPath::name() const { return nameOf(display); }

NormalPath NormalPath::parent() const {
  return {std::string(parentOf(display)), std::string(parentOf(lower))};
}

PathVerdict normalisePath(std::string_view text, const PathOptions& options, NormalPath& out) {
  if (text.empty()) {
    out = {};
    return PathVerdict::ok;
  }
  if (text.front() != '/' || endsInWhiteSpaceOrSlash(text)) return PathVerdict::malformed;
  const auto joined = joinedComponents(toNfc(text), options);
  if (!joined || joined->empty()) return PathVerdict::malformed;
  out.display = *joined;
  out.lower = lowerCased(*joined);
  return isDisallowedName(nameOf(out.lower)) ? PathVerdict::disallowedName : PathVerdict::ok;
}

std::string toNfc(std::string_view text) {
  if (isAscii(text)) return std::string(text);
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
  requireInvariant(U_SUCCESS(status), "ICU must have its normalization data");
  std::string out;
  icu::StringByteSink<std::string> sink(&out);
  nfc->normalizeUTF8(0, icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())), sink, nullptr,
                     status);
  requireInvariant(U_SUCCESS(status), "a path must be normalizable");
  return out;
}

std::string lowerCased(std::string_view nfc) {
  std::string out;
  out.reserve(nfc.size());
  const auto length = static_cast<std::int32_t>(nfc.size());
  for (std::int32_t i = 0; i < length;) {
    const char first = nfc[static_cast<std::size_t>(i)];
    if (static_cast<unsigned char>(first) < 0x80) {
      out += (first >= 'A' && first <= 'Z') ? static_cast<char>(first + ('a' - 'A')) : first;
      ++i;
      continue;
    }
    const UChar32 c = nextCodePoint(nfc, i);
    appendCodePoint(out, c < 0 ? 0xFFFD : u_tolower(c));
  }
  return out;
}

std::string_view parentOf(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string_view nameOf(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool isBelow(std::string_view path, std::string_view folder) {
  return path.size() > folder.size() && path[folder.size()] == '/' && startsWith(path, folder);
}

KeyRange subtreeRange(std::string_view folderLower) {
  return {std::string(folderLower) + "/", std::string(folderLower) + "0"};
}

std::string withSuffix(std::string_view name, std::string_view suffix, bool isFolder) {
  const auto dot = isFolder ? std::string_view::npos : name.rfind('.');
  const std::size_t stem = (dot == std::string_view::npos || dot == 0) ? name.size() : dot;
  return std::string(name.substr(0, stem)) + std::string(suffix) + std::string(name.substr(stem));
}

}  // namespace kzv::standin
