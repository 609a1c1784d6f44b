// Tree changes. Local copies are invalidated by the path as given and not in lower case, on purpose: the
// caller's own copy under that spelling is dropped at once, others when the change is reported.
#include "foundation/NSFileManager.h"
#include "foundation/NSString.h"
#include "fsops/ServiceErrors.h"
#include "plugin/KZVDropboxFS.h"

bool KZVDropboxFS::removeItemAtPath(const std::string& path, NSErrorRef* error) {
  cache().invalidate(path);
  return requiredManager().deletePath(path, ServiceErrors(error));
}

bool KZVDropboxFS::moveFromPath(const std::string& path, const std::string& to,
                                const std::shared_ptr<NSDictionary>& /*attributes*/,
                                ProgressCallback /*progress*/, NSErrorRef* error) {
  cache().invalidate(path);
  return requiredManager().moveFrom(path, to, ServiceErrors(error));
}

bool KZVDropboxFS::createDirectoryAtPath(const std::string& path,
                                         const std::shared_ptr<NSDictionary>& /*attributes*/,
                                         NSErrorRef* error) {
  if (const auto present = attributesAtPath(path, nullptr)) {
    const id type = present->objectForKey(NSFileType);
    if (const std::string* text = textOf(type); text && *text == NSFileTypeDirectory) return true;
  }
  // The service decides whether a file in the way blocks it.
  return requiredManager().createFolder(path, ServiceErrors(error));
}
