#pragma once
#include <cstdint>
#include <string_view>
#include <vector>

namespace kzv::sdk {

/// The service's icon names, as its own clients show them for a kind of item (image files carry the suffix
/// "48"). The texts live for ever. Any thread.

/// By the extension of a file's name; "page_white" for what is not known.
std::string_view iconForFile(std::string_view filename);
/// @param lowercasePath  the service's key; some top-level folders have an icon of their own.
/// @param isShared       the folder is mounted from a shared folder.
std::string_view iconForFolder(std::string_view lowercasePath, bool isShared);
/// Every name that the two above can give, each once; a picture set needs one picture for each.
std::vector<std::string_view> allIconNames();
/// Whether the service makes previews of files with this name and size (1 byte to 20 MB).
bool isPreviewable(std::string_view filename, std::int64_t sizeBytes);

}  // namespace kzv::sdk
