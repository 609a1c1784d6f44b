#pragma once
#include <string>

/// Utilities. Any thread.
class KZVSupport {
 public:
  /// Whether the host runs inside an application sandbox and its home folder is the sandbox's own, four
  /// levels below the user's home ("~/Library/Containers/NAME/Data"). The sandbox's environment variables
  /// alone are not enough: a terminal inside a confined editor passes them on to every program.
  static bool isSandboxed();
  /// A unique file name of letters, digits and "-".
  static std::string uniquePathComponent();
};
