#pragma once
#include <memory>
#include <string>

#include "core/FSPlugin.h"
#include "foundation/NSBundle.h"

/// The one symbol a bundle exports, with C linkage: returns its class object, which lives for ever.
using KZVBundlePrincipalClass = FSPluginClass* (*)();
inline constexpr const char* KZVBundlePrincipalClassSymbol = "kzvBundlePrincipalClass";

/// Loads the bundle at `path` (a folder NAME.bundle), asks it for its class and initialises that. Blocks
/// until the plug-in can be used. Null with an error when it cannot be loaded or exports no class. Call from
/// the main thread.
FSPluginClass* loadPlugin(const std::string& path, NSErrorRef* error);
