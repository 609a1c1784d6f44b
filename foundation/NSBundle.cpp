#include "foundation/NSBundle.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include <dlfcn.h>
#include <unistd.h>

#include "foundation/Paths.h"

namespace {
struct LoadedBundles {
  std::mutex mutex;
  std::vector<std::shared_ptr<NSBundle>> bundles;  // guarded by mutex
};
LoadedBundles& loaded() {
  static auto& bundles = *new LoadedBundles;
  return bundles;
}

std::string absolutePath(const std::string& path) {
  std::error_code code;
  const auto absolute = std::filesystem::absolute(path, code);
  return code ? path : absolute.string();
}
}  // namespace

NSBundle::NSBundle(const std::string& path) : path_(absolutePath(path)) {}

bool NSBundle::load(NSErrorRef* error) {
  const std::lock_guard lock(loading_);
  if (handle_) return true;
  std::string name = lastPathComponent(path_);
  if (const std::size_t dot = name.rfind('.'); dot != std::string::npos) name.resize(dot);
  const std::string code = appendingPathComponent(path_, name + ".so");
  if (::access(code.c_str(), R_OK) != 0) {
    setError(error, NSError::posix(errno, code));
    return false;
  }
  void* const handle = ::dlopen(code.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (!handle) {
    const char* reason = ::dlerror();
    setError(error, NSError::withText("NSBundle", 1, reason ? reason : "cannot load " + code));
    return false;
  }
  handle_ = handle;
  addResources(std::make_shared<NSBundle>(path_));
  return true;
}

void* NSBundle::symbol(const std::string& name) const {
  void* const handle = handle_;
  return handle ? ::dlsym(handle, name.c_str()) : nullptr;
}

std::string NSBundle::pathForResource(const std::string& fileName) const {
  const std::string path = appendingPathComponent(appendingPathComponent(path_, "Resources"), fileName);
  return ::access(path.c_str(), R_OK) == 0 ? path : "";
}

std::vector<std::shared_ptr<NSBundle>> NSBundle::loadedBundles() {
  const std::lock_guard lock(loaded().mutex);
  return loaded().bundles;
}

void NSBundle::addResources(std::shared_ptr<NSBundle> bundle) {
  const std::lock_guard lock(loaded().mutex);
  auto& bundles = loaded().bundles;
  const bool isKnown = std::any_of(bundles.begin(), bundles.end(),
                                   [&](const auto& known) { return known->path_ == bundle->path_; });
  if (!isKnown) bundles.push_back(std::move(bundle));
}
