#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kzv::standin {

/// Whether a text is a valid path.
enum class PathVerdict {
  ok,
  malformed,       // answered as `malformed_path`
  disallowedName,  // answered as `disallowed_name`, for new names only
};

/// A normalised path. The root is "" in both forms.
struct NormalPath {
  /// For display: NFC, the case as given, doubled slashes collapsed.
  std::string display;
  /// The key: lowerCased(display).
  std::string lower;

  bool isRoot() const { return lower.empty(); }
  /// Last component, in the case as given; empty for the root.
  std::string_view name() const;
  NormalPath parent() const;
};

struct PathOptions {
  /// Answer characters beyond U+FFFF with `malformed_path`, as the service did for years.
  bool refuseBeyondBmp = false;
};

/// Normalizes a path from a request; the only function that makes keys. Thread-safe.
/// @param text  "" or begins with "/", valid UTF-8.
/// @param out   written only when the answer is `ok` or `disallowedName`.
PathVerdict normalisePath(std::string_view text, const PathOptions& options, NormalPath& out);

/// Lower-cases one code point at a time (simple mapping), after NFC. Final sigma is not special.
std::string lowerCased(std::string_view nfc);
/// Unicode normalisation form C; `text` is valid UTF-8.
std::string toNfc(std::string_view text);

/// The part of `path` before its last "/"; "" for a child of the root.
std::string_view parentOf(std::string_view path);
/// The part of `path` after its last "/".
std::string_view nameOf(std::string_view path);
/// Whether `path` is below `folder` (both keys); false for the folder itself. Everything is below the root
/// "".
bool isBelow(std::string_view path, std::string_view folder);

/// First and past-the-end key of everything below `folder`: keys sort by bytes and "0" follows "/".
struct KeyRange {
  std::string first;
  std::string end;
};
KeyRange subtreeRange(std::string_view folderLower);

/// "a.txt" -> "a (1).txt": `suffix` goes before the extension. For folders the whole name is the stem.
std::string withSuffix(std::string_view name, std::string_view suffix, bool isFolder);

}  // namespace kzv::standin
