#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/FSPlugin.h"
#include "foundation/NSBundle.h"

/// The one symbol a bundle exports, with C linkage: returns its class object, which lives for ever.
using KZVBundlePrincipalClass = FSPluginClass* (*)();
inline constexpr const char* KZVBundlePrincipalClassSymbol = "kzvBundlePrincipalClass";

/// Failures of loadPlugin.
inline constexpr std::string_view KZVPluginLoaderErrorDomain = "KZVPluginLoaderErrorDomain";
enum class PluginLoaderError : std::int64_t {
  missingBundle = 1,
  codeNotLoadable = 2,
  missingClass = 3,
  refusedSettings = 4,  // the plug-in's own settingsProblem(), which lies underneath
};

/// Loads the bundle at `path` (a folder NAME.bundle), asks it for its class and initialises that. Blocks
/// until the plug-in can be used. Null with an error when it cannot be loaded, exports no class, or refuses
/// its settings (it has not started then). Call from the main thread.
FSPluginClass* loadPlugin(const std::string& path, NSErrorRef* error);
