#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/FSPlugin.h"
#include "foundation/NSBundle.h"

/// The only symbol that a bundle exports, with C linkage: returns its class object, which is never destroyed.
using KZVBundlePrincipalClass = FSPluginClass* (*)();
inline constexpr const char* KZVBundlePrincipalClassSymbol = "kzvBundlePrincipalClass";

/// Failures of loadPlugin.
inline constexpr std::string_view KZVPluginLoaderErrorDomain = "KZVPluginLoaderErrorDomain";
enum class PluginLoaderError : std::int64_t {
  missingBundle = 1,
  codeNotLoadable = 2,
  missingClass = 3,
  refusedSettings = 4,  // the plug-in's settingsProblem() is the underlying error
};

/// Loads the bundle at `path` (a folder NAME.bundle) and initializes its class. Blocks until the plug-in can
/// be used. Null with an error when it cannot be loaded, exports no class, or refuses its settings (it is not
/// initialized then). Call from the main thread.
FSPluginClass* loadPlugin(const std::string& path, NSErrorRef* error);
