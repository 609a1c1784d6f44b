#pragma once
#include <string>

/// Small services of the host. Any thread.
class KZVSupport {
 public:
  /// Whether the host runs inside an application sandbox and its home directory lies below the sandbox's own
  /// folder, four levels below the user's home ("~/Library/Containers/NAME/Data"). The sandbox's variables
  /// alone say little: a terminal inside a confined editor hands them on to every program.
  static bool isSandboxed();
  /// A file name that nothing else uses: letters, digits and "-" only.
  static std::string uniquePathComponent();
};
