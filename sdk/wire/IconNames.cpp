#include "sdk/wire/IconNames.h"

#include <algorithm>
#include <array>
#include <unordered_map>

namespace kzv::sdk {

namespace {

constexpr std::string_view unknownIcon = "page_white";
constexpr std::string_view folderIcon = "folder";
constexpr std::string_view sharedFolderIcon = "folder_user";
constexpr std::int64_t previewLimitBytes = 20LL * 1024 * 1024;
constexpr std::size_t longestExtension = 11;

struct IconRow {
  std::string_view icon;
  std::string_view extensions;  // separated by blanks
};

constexpr IconRow iconRows[] = {
    {"page_white_acrobat", "pdf"},
    {"page_white_word", "doc docx docm dot dotx odt rtf pages"},
    {"page_white_excel", "xls xlsx xlsm ods csv numbers"},
    {"page_white_powerpoint", "ppt pptx pps ppsx odp key"},
    {"page_white_text", "txt md log tex ini cfg"},
    {"page_white_code",
     "html htm xml json css js py pl sh sql java cpp cc cxx hpp hh hxx go rs ts tsx jsx kt swift lua scala "
     "yaml yml toml asm m mm vb"},
    {"page_white_c", "c"},
    {"page_white_h", "h"},
    {"page_white_csharp", "cs"},
    {"page_white_php", "php"},
    {"page_white_ruby", "rb"},
    {"page_white_actionscript", "as"},
    {"page_white_cup", "class jar"},
    {"page_white_visualstudio", "sln vcproj vcxproj csproj"},
    {"page_white_picture", "jpg jpeg png gif bmp tif tiff webp ppm heic ico svg"},
    {"page_white_paint", "psd xcf"},
    {"page_white_vector", "ai eps ps cdr"},
    {"page_white_flash", "swf fla flv"},
    {"page_white_film", "mp4 m4v mov avi mkv wmv mpg mpeg webm 3gp"},
    {"page_white_sound", "mp3 m4a aac wav aiff flac ogg wma mid"},
    {"page_white_compressed", "zip rar 7z gz tgz bz2 xz tar z"},
    {"page_white_dvd", "iso dmg img toast"},
    {"page_white_gear", "exe msi bat cmd com dll app"},
    {"page_white_tux", "deb rpm"},
};

/// Top-level folders with an icon of their own.
struct FolderRow {
  std::string_view icon;
  std::string_view lowercasePath;
};

constexpr FolderRow folderRows[] = {
    {"folder_public", "/public"},
    {"folder_camera", "/camera uploads"},
    {"folder_app", "/apps"},
};

constexpr std::string_view previewableExtensions[] = {"jpg", "jpeg", "png", "tiff", "tif",
                                                      "gif", "webp", "ppm", "bmp"};

template <class Handle>
void forEachWord(std::string_view words, Handle handle) {
  while (!words.empty()) {
    const auto end = std::min(words.find(' '), words.size());
    handle(words.substr(0, end));
    words.remove_prefix(std::min(end + 1, words.size()));
  }
}

const std::unordered_map<std::string_view, std::string_view>& iconsByExtension() {
  static const auto& table = *new auto([] {
    std::unordered_map<std::string_view, std::string_view> map;
    for (const IconRow& row : iconRows) {
      forEachWord(row.extensions, [&](std::string_view extension) { map.emplace(extension, row.icon); });
    }
    return map;
  }());
  return table;
}

/// A name's extension in lower case without an allocation; empty when there is none or it is longer than any
/// known one.
class Extension {
 public:
  explicit Extension(std::string_view filename) {
    const auto dot = filename.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || filename.size() - dot - 1 > bytes_.size()) return;
    for (const char c : filename.substr(dot + 1)) {
      bytes_[size_++] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
  }
  std::string_view text() const { return {bytes_.data(), size_}; }

 private:
  std::array<char, longestExtension> bytes_{};
  std::size_t size_ = 0;
};

}  // namespace

std::string_view iconForFile(std::string_view filename) {
  const auto& icons = iconsByExtension();
  const auto found = icons.find(Extension(filename).text());
  return found == icons.end() ? unknownIcon : found->second;
}

std::string_view iconForFolder(std::string_view lowercasePath, bool isShared) {
  if (isShared) return sharedFolderIcon;
  for (const FolderRow& row : folderRows) {
    if (row.lowercasePath == lowercasePath) return row.icon;
  }
  return folderIcon;
}

std::vector<std::string_view> allIconNames() {
  std::vector<std::string_view> names{unknownIcon, folderIcon, sharedFolderIcon};
  for (const IconRow& row : iconRows) names.push_back(row.icon);
  for (const FolderRow& row : folderRows) names.push_back(row.icon);
  return names;
}

bool isPreviewable(std::string_view filename, std::int64_t sizeBytes) {
  if (sizeBytes < 1 || sizeBytes > previewLimitBytes) return false;
  const Extension extension(filename);
  return std::find(std::begin(previewableExtensions), std::end(previewableExtensions), extension.text()) !=
         std::end(previewableExtensions);
}

}  // namespace kzv::sdk
