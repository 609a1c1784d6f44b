#pragma once
#include <string>

/// Small services of the host. Any thread.
class KZVSupport {
 public:
  /// Whether the host runs inside an application sandbox whose home directory is not the user's (Flatpak,
  /// Snap).
  static bool isSandboxed();
  /// A file name that nothing else uses: letters, digits and "-" only.
  static std::string uniquePathComponent();
};
