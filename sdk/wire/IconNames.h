#pragma once
#include <cstdint>
#include <string_view>
#include <vector>

namespace kzv::sdk {

/// The service's icon names for kinds of items (image files have the suffix "48"). The texts are static. Any
/// thread.

/// By the extension of the file name; "page_white" if unknown.
std::string_view iconForFile(std::string_view filename);
/// @param lowercasePath  the service's key; some top-level folders have their own icon.
/// @param isShared       the folder is mounted from a shared folder.
std::string_view iconForFolder(std::string_view lowercasePath, bool isShared);
/// All names that the two functions can return, without duplicates; each needs an image file.
std::vector<std::string_view> allIconNames();
/// Whether the service makes previews of files with this name and size (1 byte to 20 MB).
bool isPreviewable(std::string_view filename, std::int64_t sizeBytes);

}  // namespace kzv::sdk
