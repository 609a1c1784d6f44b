#include "standin/http/Connection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "standin/Invariant.h"

namespace kzv::standin {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t kReadBytes = 65536;
// How long an exchange in progress may wait for its client once the server stops.
constexpr milliseconds kStopGrace{3000};
constexpr milliseconds kDeliveryTimeout{1000};
constexpr milliseconds kForever{-1};

/// poll(2), repeated after signals. @return whether a descriptor is ready.
bool pollFor(pollfd* waits, nfds_t count, milliseconds timeout) {
  for (;;) {
    const int ready = ::poll(waits, count, static_cast<int>(timeout.count()));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

/// An address as getsockname(2) or getpeername(2) returns it.
template <class Get>
sockaddr_storage addressOf(int socket, Get get) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (get(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) address.ss_family = AF_UNSPEC;
  return address;
}

}  // namespace

StopSignal::StopSignal() : fd_(::eventfd(0, EFD_CLOEXEC)) {
  requireInvariant(fd_.isOpen(), "an event descriptor must be available");
}

void StopSignal::raise() {
  const std::uint64_t one = 1;
  requireInvariant(::write(fd(), &one, sizeof one) == sizeof one, "an event must be signalled");
}

bool StopSignal::waitForInput(int fd) const {
  std::array<pollfd, 2> waits{{{fd, POLLIN, 0}, {fd_.get(), POLLIN, 0}}};
  pollFor(waits.data(), waits.size(), kForever);
  return waits[1].revents == 0;
}

int localPortOf(int socket) {
  const sockaddr_storage address = addressOf(socket, ::getsockname);
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
  return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
}

Connection::Connection(OwnedFd socket, const StopSignal& stop) : socket_(std::move(socket)), stop_(stop) {
  const int yes = 1;
  ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
}

bool Connection::waitForRequest() {
  if (!buffered().empty()) return true;
  std::array<pollfd, 2> waits{{{socket_.get(), POLLIN, 0}, {stop_.fd(), POLLIN, 0}}};
  return pollFor(waits.data(), waits.size(), kIdleTimeout) && waits[1].revents == 0;
}

bool Connection::receive() {
  buffer_.erase(0, position_);
  position_ = 0;
  const std::size_t held = buffer_.size();
  buffer_.resize(held + kReadBytes);
  ssize_t count = -1;
  do {
    count = ::recv(socket_.get(), buffer_.data() + held, kReadBytes, MSG_DONTWAIT);
  } while (count < 0 && (errno == EINTR || (errno == EAGAIN && waitFor(POLLIN, readDeadline_))));
  buffer_.resize(held + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  return count > 0;
}

bool Connection::send(std::string_view first, std::string_view second) {
  const auto deadline = steady_clock::now() + kTransferTimeout;
  while (!first.empty() || !second.empty()) {
    std::array<iovec, 2> parts{
        {{const_cast<char*>(first.data()), first.size()}, {const_cast<char*>(second.data()), second.size()}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    const ssize_t count = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno != EINTR && (errno != EAGAIN || !waitFor(POLLOUT, deadline))) return false;
    const auto sent = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    const std::size_t ofFirst = std::min(sent, first.size());
    first.remove_prefix(ofFirst);
    second.remove_prefix(sent - ofFirst);
  }
  return true;
}

// Once the server stops, an exchange in progress gets only kStopGrace.
bool Connection::waitFor(short events, TimePoint deadline) {
  const auto remaining = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
  std::array<pollfd, 2> waits{{{socket_.get(), events, 0}, {stop_.fd(), POLLIN, 0}}};
  if (!pollFor(waits.data(), waits.size(), std::max(remaining, milliseconds(0)))) return false;
  return waits[0].revents != 0 || pollFor(waits.data(), 1, kStopGrace);
}

bool Connection::peerIsLoopback() const {
  const sockaddr_storage address = addressOf(socket_.get(), ::getpeername);
  if (address.ss_family == AF_INET)
    return (ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24) == 127;
  if (address.ss_family != AF_INET6) return false;
  const in6_addr& six = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
  return IN6_IS_ADDR_LOOPBACK(&six) || (IN6_IS_ADDR_V4MAPPED(&six) && six.s6_addr[12] == 127);
}

void Connection::reset() {
  // A reset discards unacknowledged bytes, but those sent before it must arrive.
  const auto deadline = steady_clock::now() + kDeliveryTimeout;
  int queued = 0;
  while (::ioctl(socket_.get(), SIOCOUTQ, &queued) == 0 && queued > 0 && steady_clock::now() < deadline) {
    pollfd wait{socket_.get(), POLLRDHUP, 0};
    pollFor(&wait, 1, milliseconds(2));
  }
  // Closing without lingering sends RST: the client sees a reset, not an early end of the body.
  const linger none{1, 0};
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  socket_ = OwnedFd();
}

void Connection::stall() {
  std::array<char, 4096> discarded{};
  while (stop_.waitForInput(socket_.get()) &&
         ::recv(socket_.get(), discarded.data(), discarded.size(), MSG_DONTWAIT) > 0) {
  }
  close();
}

void Connection::close() {
  ::shutdown(socket_.get(), SHUT_RDWR);
  socket_ = OwnedFd();
}

}  // namespace kzv::standin
