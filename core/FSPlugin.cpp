#include "core/FSPlugin.h"

#include <cerrno>

FSPlugin::~FSPlugin() = default;
FSPluginClass::~FSPluginClass() = default;
FSPluginAccounts::~FSPluginAccounts() = default;

namespace {
void setNotSupported(NSErrorRef* error, const std::string& path) {
  setError(error, NSError::posix(ENOTSUP, path));
}
}  // namespace

std::shared_ptr<NSURL> FSPlugin::requestFileUrl(const std::string& path, ProgressCallback /*progress*/,
                                                NSErrorRef* error) {
  setNotSupported(error, path);
  return nullptr;
}

void FSPlugin::releaseFileUrl(const NSURL& /*url*/) {}

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
