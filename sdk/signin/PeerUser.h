#pragma once
#include <optional>

#include <sys/types.h>

namespace kzv::sdk {

/// The user whose process holds the other end of a TCP connection between two addresses of this machine, as
/// the kernel lists it (proc(5), /proc/net/tcp and tcp6). Nothing when it is not listed: the other end has
/// been closed, or lies elsewhere. Any thread; reads one or two small files.
std::optional<uid_t> userOfPeer(int connection);

}  // namespace kzv::sdk
