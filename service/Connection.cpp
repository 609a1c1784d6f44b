#include "service/Connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "service/HttpHead.h"
#include "service/Invariant.h"

namespace kzv::service {
namespace {

constexpr std::size_t kMaxHeadBytes = 262144;
constexpr std::size_t kReadBytes = 65536;
constexpr int kStopGraceMs = 3000;

int pollRetrying(pollfd* waits, nfds_t count, int timeoutMs) {
  for (;;) {
    const int ready = ::poll(waits, count, timeoutMs);
    if (ready >= 0 || errno != EINTR) return ready;
  }
}

}  // namespace

StopSignal::StopSignal() : fd_(eventfd(0, EFD_CLOEXEC)) {
  requireInvariant(fd_ >= 0, "an event descriptor can be made");
}

StopSignal::~StopSignal() { ::close(fd_); }

void StopSignal::raise() {
  const std::uint64_t one = 1;
  requireInvariant(::write(fd_, &one, sizeof one) == sizeof one, "an event can be signalled");
}

std::optional<HttpRequest> Connection::readHead(bool& malformed) {
  malformed = false;
  std::size_t end = std::string::npos;
  while ((end = buffer_.find("\r\n\r\n", position_)) == std::string::npos) {
    if (buffer_.size() - position_ > kMaxHeadBytes) {
      malformed = true;
      return std::nullopt;
    }
    const bool idle = buffer_.size() == position_;
    if (!fill(idle ? kIdleTimeoutMs : kTransferTimeoutMs, idle)) return std::nullopt;
  }
  auto request = parseHead(std::string_view(buffer_).substr(position_, end - position_));
  position_ = end + 4;
  malformed = !request;
  if (!request) return std::nullopt;
  request->fromLoopback = peerIsLoopback();
  request->localPort = localPort();
  substitute_ = framingHead(*request);
  substitutePosition_ = 0;
  return request;
}

ssize_t Connection::read(char* data, size_t size) {
  if (substitutePosition_ < substitute_.size()) {
    const std::size_t count = std::min(size, substitute_.size() - substitutePosition_);
    std::memcpy(data, substitute_.data() + substitutePosition_, count);
    substitutePosition_ += count;
    return static_cast<ssize_t>(count);
  }
  if (position_ == buffer_.size() && !fill(kTransferTimeoutMs, false)) return -1;
  const std::size_t count = std::min(size, buffer_.size() - position_);
  std::memcpy(data, buffer_.data() + position_, count);
  position_ += count;
  return static_cast<ssize_t>(count);
}

ssize_t Connection::write(const char* data, size_t size) {
  if (mute_) return -1;
  for (;;) {
    const ssize_t count = ::send(socket_, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) return count;
    if (errno == EINTR) continue;
    if (errno != EAGAIN || !await(POLLOUT, kTransferTimeoutMs)) return -1;
  }
}

void Connection::get_remote_ip_and_port(std::string& ip, int& port) const {
  ip.clear();
  port = 0;
}

void Connection::get_local_ip_and_port(std::string& ip, int& port) const {
  ip.clear();
  port = 0;
}

void Connection::close() {
  if (stall_) waitForPeerOrStop();
  if (reset_) {
    waitUntilDelivered();
    // Closing without lingering sends RST: the client sees a reset, not an early end of the body.
    const linger hard{1, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  } else {
    ::shutdown(socket_, SHUT_RDWR);
  }
  ::close(socket_);
}

// Reads more into the buffer. An idle connection also ends with the server; an exchange under way may finish.
bool Connection::fill(int timeoutMs, bool endsWithServer) {
  if (position_ > 0) buffer_.erase(0, position_);
  position_ = 0;
  if (endsWithServer ? !awaitUnlessStopped(timeoutMs) : !await(POLLIN, timeoutMs)) return false;
  const std::size_t held = buffer_.size();
  buffer_.resize(held + kReadBytes);
  const ssize_t count = ::recv(socket_, buffer_.data() + held, kReadBytes, 0);
  buffer_.resize(held + (count > 0 ? static_cast<std::size_t>(count) : 0));
  return count > 0;
}

// Waits for the socket; a server that stops grants an exchange under way a short time only.
bool Connection::await(short events, int timeoutMs) {
  pollfd waits[2] = {{socket_, events, 0}, {stop_.fd(), POLLIN, 0}};
  const int ready = pollRetrying(waits, 2, timeoutMs);
  if (ready > 0 && waits[0].revents == 0) return pollRetrying(waits, 1, kStopGraceMs) > 0;
  return ready > 0;
}

bool Connection::awaitUnlessStopped(int timeoutMs) {
  pollfd waits[2] = {{socket_, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
  return pollRetrying(waits, 2, timeoutMs) > 0 && waits[1].revents == 0;
}

bool Connection::peerIsLoopback() const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getpeername(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0) return false;
  if (address.ss_family == AF_INET) {
    return (ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24) == 127;
  }
  if (address.ss_family != AF_INET6) return false;
  const in6_addr& six = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
  return IN6_IS_ADDR_LOOPBACK(&six) || (IN6_IS_ADDR_V4MAPPED(&six) && six.s6_addr[12] == 127);
}

int Connection::localPort() const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
  return ntohs(address.ss_family == AF_INET ? reinterpret_cast<const sockaddr_in&>(address).sin_port
                                            : reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
}

void Connection::waitForPeerOrStop() {
  for (;;) {
    pollfd waits[2] = {{socket_, POLLIN | POLLRDHUP, 0}, {stop_.fd(), POLLIN, 0}};
    pollRetrying(waits, 2, -1);
    if (waits[1].revents != 0 || (waits[0].revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0) return;
    char ignored[4096];
    if (::recv(socket_, ignored, sizeof ignored, 0) <= 0) return;
  }
}

// A reset discards what the client's side has not acknowledged; the ordered number of bytes should get there.
void Connection::waitUntilDelivered() {
  for (int i = 0; i < 500; ++i) {
    int queued = 0;
    if (::ioctl(socket_, SIOCOUTQ, &queued) != 0 || queued == 0) return;
    pollfd wait{socket_, POLLRDHUP, 0};
    ::poll(&wait, 1, 2);
  }
}

}  // namespace kzv::service
