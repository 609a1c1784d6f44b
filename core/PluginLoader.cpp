#include "core/PluginLoader.h"

#include <sys/stat.h>

#include "foundation/NSString.h"

namespace {

constexpr const char* loaderErrorDomain = "KZVPluginLoaderErrorDomain";
enum LoaderError : std::int64_t { missingBundle = 1, codeNotLoadable = 2, missingClass = 3 };

FSPluginClass* refuse(NSErrorRef* error, LoaderError code, std::string text, NSErrorRef cause = nullptr) {
  NSDictionary::Entries details{{str(std::string(NSLocalizedDescriptionKey)), str(std::move(text))}};
  if (cause) details.emplace_back(str(std::string(NSUnderlyingErrorKey)), std::move(cause));
  setError(error, std::make_shared<NSError>(loaderErrorDomain, code,
                                            std::make_shared<NSDictionary>(std::move(details))));
  return nullptr;
}

}  // namespace

FSPluginClass* loadPlugin(const std::string& path, NSErrorRef* error) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
    return refuse(error, missingBundle, "no plug-in bundle at " + path);
  const auto bundle = std::make_shared<NSBundle>(path);
  NSErrorRef cause;
  if (!bundle->load(&cause)) {
    const std::string reason = cause ? cause->localizedDescription() : std::string("unknown reason");
    return refuse(error, codeNotLoadable, "cannot load the plug-in at " + path + ": " + reason, cause);
  }
  const auto principal =
      reinterpret_cast<KZVBundlePrincipalClass>(bundle->symbol(KZVBundlePrincipalClassSymbol));
  FSPluginClass* plugin = principal ? principal() : nullptr;
  if (!plugin) {
    return refuse(error, missingClass,
                  "the bundle at " + path + " is no plug-in: it exports no " + KZVBundlePrincipalClassSymbol);
  }
  plugin->initialize();
  return plugin;
}
