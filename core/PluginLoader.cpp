#include "core/PluginLoader.h"

#include <sys/stat.h>

namespace {

FSPluginClass* refuse(NSErrorRef* error, PluginLoaderError code, std::string text,
                      NSErrorRef cause = nullptr) {
  setError(error, NSError::withText(KZVPluginLoaderErrorDomain, static_cast<std::int64_t>(code),
                                    std::move(text), {{NSUnderlyingErrorKey, std::move(cause)}}));
  return nullptr;
}

}  // namespace

FSPluginClass* loadPlugin(const std::string& path, NSErrorRef* error) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
    return refuse(error, PluginLoaderError::missingBundle, "no plug-in bundle at " + path);
  const auto bundle = std::make_shared<NSBundle>(path);
  NSErrorRef cause;
  if (!bundle->load(&cause)) {
    const std::string reason = cause ? cause->localizedDescription() : std::string("unknown reason");
    return refuse(error, PluginLoaderError::codeNotLoadable,
                  "cannot load the plug-in at " + path + ": " + reason, cause);
  }
  const auto principal =
      reinterpret_cast<KZVBundlePrincipalClass>(bundle->symbol(KZVBundlePrincipalClassSymbol));
  FSPluginClass* plugin = principal ? principal() : nullptr;
  if (!plugin) {
    return refuse(
        error, PluginLoaderError::missingClass,
        "the bundle at " + path + " is not a plug-in: it does not export " + KZVBundlePrincipalClassSymbol);
  }
  if (const NSErrorRef problem = plugin->settingsProblem())
    return refuse(error, PluginLoaderError::refusedSettings, problem->localizedDescription(), problem);
  plugin->initialize();
  return plugin;
}
