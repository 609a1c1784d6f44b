#include "core/FSPlugin.h"

#include <cerrno>

#include "core/LocalCopy.h"
#include "foundation/NSDate.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/Unicode.h"

FSPlugin::~FSPlugin() = default;
FSPluginClass::~FSPluginClass() = default;
FSPluginAccounts::~FSPluginAccounts() = default;

namespace {
void setNotSupported(NSErrorRef* error, const std::string& path) {
  setError(error, NSError::posix(ENOTSUP, path));
}
}  // namespace

std::optional<NameProblem> FSPlugin::nameProblem(std::string_view name) const {
  using Kind = NameProblem::Kind;
  constexpr std::size_t maxBytes = 255;
  if (name.empty() || name == "." || name == "..")
    return NameProblem{Kind::malformed, "this is not a valid name"};
  if (name.find('/') != std::string_view::npos || name.find('\0') != std::string_view::npos)
    return NameProblem{Kind::malformed, "a name cannot contain a slash or a NUL"};
  if (!isValidUtf8(name)) return NameProblem{Kind::malformed, "this name is not valid UTF-8"};
  if (name.size() > maxBytes) return NameProblem{Kind::tooLong, "this name is longer than 255 bytes"};
  return std::nullopt;
}

std::string FSPlugin::pathKey(std::string_view path) const {
  std::string key;
  key.reserve(path.size());
  while (!path.empty()) {
    const std::size_t slash = path.find('/');
    key += nameKey(path.substr(0, slash));
    if (slash == std::string_view::npos) break;
    key += '/';
    path.remove_prefix(slash + 1);
  }
  return key;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): overriders keep or move it
std::shared_ptr<NSURL> FSPlugin::requestFileUrl(const std::string& path, ProgressCallback /*progress*/,
                                                NSErrorRef* error) {
  setNotSupported(error, path);
  return nullptr;
}

void FSPlugin::releaseFileUrl(const NSURL& /*url*/) {}

std::shared_ptr<FSItem> FSPlugin::itemAtPath(const std::string& path, NSErrorRef* error) {
  const auto attributes = attributesAtPath(path, error);
  if (!attributes) return nullptr;
  auto item = std::make_shared<FSItem>(path, shared_from_this());
  const id type = attributes->objectForKey(NSFileType);
  const std::string* typeText = textOf(type);
  item->setIsDirectory(typeText && *typeText == NSFileTypeDirectory);
  const auto size = as<NSNumber>(attributes->objectForKey(NSFileSize));
  if (size && !item->isDirectory() && size->int64Value() > 0)
    item->setSize(static_cast<std::uint64_t>(size->int64Value()));
  if (const auto date = as<NSDate>(attributes->objectForKey(NSFileModificationDate)))
    item->setModificationDate(date->time());
  item->setVersion(revisionAtPath(path).value_or(""));
  return item;
}

std::shared_ptr<FSReader> FSPlugin::openReader(const std::string& path, const std::string& version,
                                               ProgressCallback progress, NSErrorRef* error) {
  const auto isOther = [&] {
    const auto present = version.empty() ? std::nullopt : revisionAtPath(path);
    if (!present || *present == version) return false;
    setError(error, fsError(FSErrorCode::conflict, "\"" + path + "\" has been replaced."));
    return true;
  };
  if (isOther()) return nullptr;
  auto copy = requestFileUrl(path, std::move(progress), error);
  if (!copy) return nullptr;
  if (isOther()) {
    releaseFileUrl(*copy);
    return nullptr;
  }
  return LocalCopyReader::open(shared_from_this(), std::move(copy),
                               version.empty() ? revisionAtPath(path).value_or("") : version, error);
}

bool FSPlugin::fetchFile(const FSItem& item, const NSURL& target, LocalAccess access,
                         ProgressCallback progress, NSErrorRef* error) {
  const auto copy = requestFileUrl(item.path(), progress, error);
  if (!copy) return false;
  const auto shouldContinue = [&] { return !progress || progress({1000, 1000}); };
  const bool isCopied = copyLocalFile(copy->path(), target.path(), {item.modificationDate(), access, true},
                                      shouldContinue, error);
  releaseFileUrl(*copy);
  return isCopied;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): overriders keep or move it
bool FSPlugin::writeFile(const NSURL& /*source*/, const std::string& path, ProgressCallback /*progress*/,
                         NSErrorRef* error) {
  setNotSupported(error, path);
  return false;
}

std::optional<StoredFile> FSPlugin::storeFile(const NSURL& source, const std::string& path,
                                              const WriteBase& /*base*/, ProgressCallback progress,
                                              NSErrorRef* error) {
  if (!writeFile(source, path, std::move(progress), error)) return std::nullopt;
  return StoredFile{path, std::nullopt};
}

bool FSPlugin::removeItemAtPath(const std::string& path, NSErrorRef* error) {
  setNotSupported(error, path);
  return false;
}

bool FSPlugin::moveFromPath(const std::string& path, const std::string& /*to*/,
                            const std::shared_ptr<NSDictionary>& /*attributes*/,
                            // NOLINTNEXTLINE(performance-unnecessary-value-param): overriders keep or move it
                            ProgressCallback /*progress*/, NSErrorRef* error) {
  setNotSupported(error, path);
  return false;
}

bool FSPlugin::createDirectoryAtPath(const std::string& path,
                                     const std::shared_ptr<NSDictionary>& /*attributes*/, NSErrorRef* error) {
  setNotSupported(error, path);
  return false;
}

std::shared_ptr<NSDictionary> FSPlugin::fsAttributes(const std::string& path, NSErrorRef* error) {
  setNotSupported(error, path);
  return nullptr;
}

std::optional<VolumeSpace> FSPlugin::space(NSErrorRef* error) {
  const auto attributes = fsAttributes("/", error);
  if (!attributes) return std::nullopt;
  const auto bytes = [&](std::string_view key) {
    const auto number = as<NSNumber>(attributes->objectForKey(key));
    return number ? number->int64Value() : 0;
  };
  return VolumeSpace{bytes(NSFileSystemSize), bytes(NSFileSystemFreeSize)};
}
