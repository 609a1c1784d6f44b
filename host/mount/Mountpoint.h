#pragma once
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "foundation/NSError.h"

/// The folder that a volume is mounted at, and the process behind it. Calls block for the system's answer;
/// errors say in words what to do.

/// `typed` as an absolute path of an existing folder. A mount whose process has died there is taken away
/// first. Nothing with an error: no folder, or something is mounted there.
std::optional<std::string> prepareMountpoint(const std::string& typed, NSErrorRef* error);

/// Whether another file system begins at `path`, also one whose process has died.
bool isMountpoint(const std::string& path);

/// Unmounts what is mounted at `typed`; answers its absolute path. Nothing with an error: nothing is mounted
/// there, or somebody uses it (EBUSY).
std::optional<std::string> unmountAt(const std::string& typed, NSErrorRef* error);

/// Tells whoever waits for it that the mount can be used: the process that started this one through the
/// descriptor `readyDescriptor` (negative: nobody), and a service manager (sd_notify(3): NOTIFY_SOCKET).
void reportReady(int readyDescriptor);

/// How a mount in the background has begun.
struct BackgroundStart {
  bool isReady = false;
  std::string said;  // what it wrote to its standard error before it ended, when it is not ready
  int exitStatus = 0;
};
/// Starts this program again with `arguments` and "--ready-fd N", in a session of its own, and waits until it
/// is ready or has ended. From then on it writes to `logFile` (mode 0600).
BackgroundStart startInBackground(const std::vector<std::string>& arguments, const std::string& logFile,
                                  NSErrorRef* error);
/// Turns standard output and error to `logFile`, which begins anew when it has grown large.
void writeToLog(const std::string& logFile);
