#pragma once
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "foundation/NSError.h"

namespace kzv::mount {

/// The folder where a volume is mounted, and the process behind it. Any thread; calls block. Error texts say
/// what to do.

/// `typed` as the absolute path of an existing folder. A mount there whose process has died is unmounted
/// first. Nothing with an error: it is not a folder, or something is mounted there.
std::optional<std::string> prepareMountpoint(const std::string& typed, NSErrorRef* error);

/// Whether a file system is mounted at `path`, also one whose process has died.
bool isMountpoint(const std::string& path);

/// Unmounts the file system at `typed`; returns its absolute path. Nothing with an error: nothing is mounted
/// there, or it is in use (EBUSY).
std::optional<std::string> unmountAt(const std::string& typed, NSErrorRef* error);

/// Reports that the mount can be used: to the process that started this one, through `readyDescriptor`
/// (negative: there is none), and to a service manager (sd_notify(3): NOTIFY_SOCKET).
void reportReady(int readyDescriptor);

/// How the start of a mount in the background ended.
struct BackgroundStart {
  bool isReady = false;
  std::string output;  // what it wrote to its standard output and error until then
  int exitStatus = 0;  // if not ready
};
/// Starts this program again with `arguments` and "--ready-fd N", in a new session, and waits until it is
/// ready or has ended. Once ready it logs to `logFile` (mode 0600).
BackgroundStart startInBackground(const std::vector<std::string>& arguments, const std::string& logFile,
                                  NSErrorRef* error);
/// Redirects standard output and error to `logFile`, which is truncated first if it has grown large.
void writeToLog(const std::string& logFile);

}  // namespace kzv::mount
