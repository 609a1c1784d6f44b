#include "sdk/LoopbackListener.h"

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

namespace {

constexpr std::size_t requestLimitBytes = 16UL * 1024;
constexpr std::chrono::seconds longestRequest{5};  // a browser sends its few lines at once
constexpr const char* notHere = "Nothing here";

int listenOn(const sockaddr* address, socklen_t size) {
  const int socket = ::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket < 0) return -1;
  const int on = 1;
  ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (address->sa_family == AF_INET6) ::setsockopt(socket, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (::bind(socket, address, size) == 0 && ::listen(socket, 8) == 0) return socket;
  ::close(socket);
  return -1;
}

std::string reasonPhrase(int status) {
  return status == 200 ? "OK" : status == 404 ? "Not Found" : "Bad Request";
}

// Plain enough for any browser, readable on a telephone and in the dark.
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

/// The head of a request; empty when none comes in time or it grows too large.
std::string readHead(int connection, int stopSignal) {
  const auto giveUpAt = std::chrono::steady_clock::now() + longestRequest;
  std::string head;
  while (head.find("\r\n\r\n") == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(giveUpAt - std::chrono::steady_clock::now());
    pollfd waits[] = {{connection, POLLIN, 0}, {stopSignal, POLLIN, 0}};
    if (left.count() <= 0 || ::poll(waits, 2, static_cast<int>(left.count())) <= 0 || waits[1].revents)
      return {};
    char bytes[2048];
    const ssize_t count = ::recv(connection, bytes, sizeof bytes, 0);
    if (count <= 0 || head.size() > requestLimitBytes) return {};
    head.append(bytes, static_cast<std::size_t>(count));
  }
  return head;
}

}  // namespace

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
  stopSignal_ = ::eventfd(0, EFD_CLOEXEC);
  sockaddr_in four{};
  four.sin_family = AF_INET;
  four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  four.sin_port = htons(port);
  const int socket = listenOn(reinterpret_cast<const sockaddr*>(&four), sizeof four);
  if (socket < 0 || stopSignal_ < 0) return false;
  sockets_.push_back(socket);
  socklen_t size = sizeof four;
  ::getsockname(socket, reinterpret_cast<sockaddr*>(&four), &size);
  port_ = ntohs(four.sin_port);
  // "localhost" may mean either address to a browser; a machine without the second does without it.
  sockaddr_in6 six{};
  six.sin6_family = AF_INET6;
  six.sin6_addr = in6addr_loopback;
  six.sin6_port = htons(port_);
  const int second = listenOn(reinterpret_cast<const sockaddr*>(&six), sizeof six);
  if (second >= 0) sockets_.push_back(second);
  return true;
}

LoopbackListener::~LoopbackListener() {
  const std::uint64_t one = 1;
  if (thread_.joinable() && ::write(stopSignal_, &one, sizeof one) == sizeof one) thread_.join();
  for (const int socket : sockets_) ::close(socket);
  if (stopSignal_ >= 0) ::close(stopSignal_);
}

void LoopbackListener::run() {
  setCurrentThreadName("kzv-sign-in");
  while (true) {
    std::vector<pollfd> waits{{stopSignal_, POLLIN, 0}};
    for (const int socket : sockets_) waits.push_back({socket, POLLIN, 0});
    if (::poll(waits.data(), waits.size(), -1) < 0) continue;
    if (waits[0].revents) return;
    for (const pollfd& wait : waits) {
      if (wait.fd == stopSignal_ || !wait.revents) continue;
      const int connection = ::accept4(wait.fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) continue;
      serve(connection);
      ::close(connection);
    }
  }
}

void LoopbackListener::serve(int connection) const {
  const std::string head = readHead(connection, stopSignal_);
  if (head.empty()) return;
  const Page page = pageFor(head);
  const std::string answer = httpAnswer(page);
  ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
  ::shutdown(connection, SHUT_WR);
  if (page.afterwards) page.afterwards();
}

LoopbackListener::Page LoopbackListener::pageFor(const std::string& requestHead) const {
  const auto lineEnd = requestHead.find("\r\n");
  const std::string line = requestHead.substr(0, lineEnd);
  if (!line.starts_with("GET ")) return {400, notHere, "This address is for the browser only.", nullptr};
  const std::string target = line.substr(4, line.find(' ', 4) - 4);
  const auto question = target.find('?');
  if (target.substr(0, question) != path_) return {404, notHere, "There is nothing here.", nullptr};
  return handler_(question == std::string::npos ? "" : target.substr(question + 1));
}
