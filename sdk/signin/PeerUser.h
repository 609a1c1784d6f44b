#pragma once
#include <optional>

#include <sys/types.h>

namespace kzv::sdk {

/// The user whose process owns the other end of a TCP connection within this machine, from /proc/net/tcp and
/// tcp6 (proc(5)). Nothing when it is not listed: it was closed, or is on another machine. Any thread; reads
/// one or two small files.
std::optional<uid_t> userOfPeer(int connection);

}  // namespace kzv::sdk
