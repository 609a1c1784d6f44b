#include "sdk/signin/PeerUser.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace kzv::sdk {

namespace {

/// "0100007F:BB14": the address as 32-bit words in memory order, and the port.
std::string listed(const void* address, std::size_t words, in_port_t port) {
  std::string text;
  for (std::size_t i = 0; i < words; ++i) {
    std::uint32_t word = 0;
    std::memcpy(&word, static_cast<const char*>(address) + 4 * i, sizeof word);
    text += fmt::format("{:08X}", word);
  }
  return text + fmt::format(":{:04X}", ntohs(port));
}

constexpr const char* mappedPrefix = "0000000000000000FFFF0000";  // ::ffff:0:0/96

/// An address as listed in /proc/net/tcp (four) and tcp6 (six); empty if it cannot be listed there.
struct Listed {
  std::string four, six;
};

Listed listed(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET) {
    const auto& four = reinterpret_cast<const sockaddr_in&>(address);
    const std::string text = listed(&four.sin_addr, 1, four.sin_port);
    return {text, mappedPrefix + text};
  }
  if (address.ss_family != AF_INET6) return {};
  const auto& six = reinterpret_cast<const sockaddr_in6&>(address);
  return {"", listed(&six.sin6_addr, 4, six.sin6_port)};
}

std::optional<uid_t> userIn(const char* file, const std::string& local, const std::string& remote) {
  if (local.empty() || remote.empty()) return std::nullopt;
  std::ifstream table(file);
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string number, from, to, state, queues, timer, retransmits;
    uid_t user = 0;
    words >> number >> from >> to >> state >> queues >> timer >> retransmits >> user;
    constexpr const char* established = "01";  // a closed end is listed as root's
    if (words && from == local && to == remote && state == established) return user;
  }
  return std::nullopt;
}

}  // namespace

std::optional<uid_t> userOfPeer(int connection) {
  sockaddr_storage here{}, there{};
  socklen_t hereSize = sizeof here, thereSize = sizeof there;
  if (::getsockname(connection, reinterpret_cast<sockaddr*>(&here), &hereSize) != 0 ||
      ::getpeername(connection, reinterpret_cast<sockaddr*>(&there), &thereSize) != 0)
    return std::nullopt;
  const Listed local = listed(there), remote = listed(here);  // as seen from the other end
  if (const auto user = userIn("/proc/net/tcp", local.four, remote.four)) return user;
  return userIn("/proc/net/tcp6", local.six, remote.six);
}

}  // namespace kzv::sdk
