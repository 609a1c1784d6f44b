#include "sdk/signin/LoopbackListener.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "foundation/NSLog.h"
#include "foundation/NSThread.h"
#include "sdk/signin/PeerUser.h"

namespace kzv::sdk {

namespace {

constexpr std::size_t requestLimitBytes = 16UL * 1024;
constexpr std::chrono::seconds longestRequest{10};  // browsers send their short request at once
/// Browsers open half a dozen; beyond this limit the oldest one is closed.
constexpr std::size_t mostConnections = 64;
constexpr const char* notHere = "Nothing here";

/// A listening socket; if it is not open, see errno.
Descriptor listenOn(const sockaddr* address, socklen_t size) {
  Descriptor socket(::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.isOpen()) return socket;
  const int on = 1;
  ::setsockopt(socket.number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (address->sa_family == AF_INET6)
    ::setsockopt(socket.number(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (::bind(socket.number(), address, size) == 0 && ::listen(socket.number(), 16) == 0) return socket;
  const int reason = errno;
  socket.close();
  errno = reason;
  return socket;
}

std::string reasonPhrase(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    default:
      return "Bad Request";
  }
}

// For any browser, small screens and dark mode.
constexpr const char* pageStyle =
    ":root{color-scheme:light dark;--text:#1b1b1b;--ground:#fff}"
    "@media(prefers-color-scheme:dark){:root{--text:#ececec;--ground:#1c1d20}}"
    "body{font:1rem/1.5 system-ui,sans-serif;max-width:34rem;margin:3rem auto;padding:0 1rem;"
    "color:var(--text);background:var(--ground)}h1{font-size:1.4rem}";

std::string httpAnswer(const LoopbackListener::Page& page) {
  const std::string body =
      "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"><title>" +
      page.title + "</title><style>" + pageStyle + "</style></head>\n<body><main><h1>" + page.title +
      "</h1>\n<p>" + page.text + "</p></main></body></html>\n";
  return "HTTP/1.1 " + std::to_string(page.status) + " " + reasonPhrase(page.status) +
         "\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nContent-Security-Policy: default-src 'none'; style-src 'unsafe-inline'"
         "\r\nCache-Control: no-store\r\nReferrer-Policy: no-referrer\r\nConnection: close\r\n\r\n" +
         body;
}

}  // namespace

struct LoopbackListener::Connection {
  Descriptor socket;
  std::chrono::steady_clock::time_point deadline;
  std::string head{};  // of the request, as far as received
};

LoopbackListener::LoopbackListener(std::string path, Handler handler)
    : path_(std::move(path)), handler_(std::move(handler)) {}

std::unique_ptr<LoopbackListener> LoopbackListener::open(std::uint16_t port, std::string path,
                                                         Handler handler) {
  std::unique_ptr<LoopbackListener> listener(new LoopbackListener(std::move(path), std::move(handler)));
  if (!listener->bindTo(port)) return nullptr;
  try {
    listener->thread_ = std::thread([own = listener.get()] { own->run(); });
  } catch (const std::system_error& failure) {
    NSLog(NSLogLevel::error, "LoopbackListener", failure.what());
    return nullptr;
  }
  return listener;
}

bool LoopbackListener::bindTo(std::uint16_t port) {
  stopSignal_ = Descriptor(::eventfd(0, EFD_CLOEXEC));
  if (!stopSignal_.isOpen()) return false;
  constexpr int tries = 20;  // a port that is free on one address may be taken on the other
  for (int i = 0; i < (port == 0 ? tries : 1); ++i) {
    if (bindBoth(port)) return true;
    sockets_.clear();
  }
  return false;
}

bool LoopbackListener::bindBoth(std::uint16_t port) {
  sockaddr_in four{};
  four.sin_family = AF_INET;
  four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  four.sin_port = htons(port);
  sockets_.push_back(listenOn(reinterpret_cast<const sockaddr*>(&four), sizeof four));
  if (!sockets_.back().isOpen()) return false;
  socklen_t size = sizeof four;
  ::getsockname(sockets_.back().number(), reinterpret_cast<sockaddr*>(&four), &size);
  port_ = ntohs(four.sin_port);
  sockaddr_in6 six{};
  six.sin6_family = AF_INET6;
  six.sin6_addr = in6addr_loopback;
  six.sin6_port = htons(port_);
  sockets_.push_back(listenOn(reinterpret_cast<const sockaddr*>(&six), sizeof six));
  if (sockets_.back().isOpen()) return true;
  sockets_.pop_back();
  return errno == EAFNOSUPPORT || errno == EADDRNOTAVAIL;  // this machine has no IPv6 loopback
}

LoopbackListener::~LoopbackListener() {
  const std::uint64_t one = 1;
  if (thread_.joinable() && ::write(stopSignal_.number(), &one, sizeof one) == sizeof one) thread_.join();
}

void LoopbackListener::run() {
  setCurrentThreadName("kzv-sign-in");
  std::vector<Connection> connections;
  while (true) {
    std::vector<pollfd> waits{{stopSignal_.number(), POLLIN, 0}};
    for (const Descriptor& socket : sockets_) waits.push_back({socket.number(), POLLIN, 0});
    const std::size_t firstConnection = waits.size();
    std::chrono::milliseconds wait{-1};
    const auto now = std::chrono::steady_clock::now();
    for (const Connection& connection : connections) {
      waits.push_back({connection.socket.number(), POLLIN, 0});
      const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(connection.deadline - now);
      wait = wait.count() < 0 ? remaining : std::min(wait, remaining);
    }
    if (!connections.empty()) wait = std::max(wait, std::chrono::milliseconds(0));
    if (::poll(waits.data(), waits.size(), static_cast<int>(wait.count())) < 0) continue;
    if (waits[0].revents) return;
    std::size_t index = firstConnection;
    std::erase_if(connections, [&](Connection& connection) {
      const bool isReadable = waits[index++].revents != 0;
      return isReadable ? !serve(connection) : connection.deadline <= std::chrono::steady_clock::now();
    });
    for (std::size_t i = 1; i < firstConnection; ++i)
      if (waits[i].revents) acceptFrom(waits[i].fd, connections);
  }
}

void LoopbackListener::acceptFrom(int socket, std::vector<Connection>& connections) const {
  Descriptor accepted(::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!accepted.isOpen()) return;
  if (connections.size() >= mostConnections) connections.erase(connections.begin());
  connections.push_back({std::move(accepted), std::chrono::steady_clock::now() + longestRequest});
}

bool LoopbackListener::serve(Connection& connection) const {
  char bytes[2048];
  const ssize_t count = ::recv(connection.socket.number(), bytes, sizeof bytes, 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  if (count <= 0 || connection.head.size() > requestLimitBytes) return false;
  connection.head.append(bytes, static_cast<std::size_t>(count));
  if (connection.head.find("\r\n\r\n") == std::string::npos) return true;
  const Page page = pageFor(connection);
  const std::string answer = httpAnswer(page);  // fits the empty send buffer of a new connection
  ::send(connection.socket.number(), answer.data(), answer.size(), MSG_NOSIGNAL);
  ::shutdown(connection.socket.number(), SHUT_WR);
  if (page.afterwards) page.afterwards();
  return false;
}

LoopbackListener::Page LoopbackListener::pageFor(const Connection& connection) const {
  // Another user of the machine, who can read the sign-in page's address among the browser's arguments, could
  // finish the sign-in with an account of their own.
  if (userOfPeer(connection.socket.number()) != ::geteuid())
    return {403, "Not signed in", "This sign-in was started by another user of this machine.", nullptr};
  const std::string line = connection.head.substr(0, connection.head.find("\r\n"));
  if (!line.starts_with("GET ")) return {400, notHere, "This address is for the browser only.", nullptr};
  const std::string target = line.substr(4, line.find(' ', 4) - 4);
  const auto question = target.find('?');
  if (target.substr(0, question) != path_) return {404, notHere, "There is nothing here.", nullptr};
  return handler_(question == std::string::npos ? "" : target.substr(question + 1));
}

}  // namespace kzv::sdk
