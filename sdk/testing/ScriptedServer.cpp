#include "sdk/testing/ScriptedServer.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kzv::sdk {

namespace {

constexpr std::chrono::seconds patience{20};

bool sendAll(int connection, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

/// Takes one whole request from the front of `received`; nothing while it is not complete.
std::optional<ScriptedRequest> takeRequest(std::string& received) {
  const auto headEnd = received.find("\r\n\r\n");
  if (headEnd == std::string::npos) return std::nullopt;
  ScriptedRequest request;
  const std::string head = received.substr(0, headEnd + 2);
  const auto routeBegin = head.find(' ') + 1;
  request.route = head.substr(routeBegin, head.find(' ', routeBegin) - routeBegin);
  for (auto line = head.find("\r\n") + 2; line < head.size(); line = head.find("\r\n", line) + 2) {
    const auto colon = head.find(':', line);
    std::string name = head.substr(line, colon - line);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    const auto value = head.find_first_not_of(' ', colon + 1);
    request.headers[name] = head.substr(value, head.find("\r\n", line) - value);
  }
  const auto length =
      request.headers.count("content-length") ? std::stoul(request.headers["content-length"]) : 0;
  if (received.size() < headEnd + 4 + length) return std::nullopt;
  request.body = received.substr(headEnd + 4, length);
  received.erase(0, headEnd + 4 + length);
  return request;
}

}  // namespace

ScriptedServer::ScriptedServer(Handler handler) : handler_(std::move(handler)) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  if (listener_ < 0 || ::bind(listener_, any, size) != 0 || ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, any, &size) != 0) {
    throw std::runtime_error("the scripted server cannot listen");
  }
  port_ = ntohs(address.sin_port);
  acceptThread_ = std::thread([this] { acceptConnections(); });
}

ScriptedServer::~ScriptedServer() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    for (const int connection : connections_) ::shutdown(connection, SHUT_RDWR);
  }
  acceptThread_.join();
  for (std::thread& thread : connectionThreads_) thread.join();
  ::close(listener_);
}

std::string ScriptedServer::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

void ScriptedServer::acceptConnections() {
  while (true) {
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    const std::lock_guard lock(mutex_);
    if (connection < 0 || stopped_) {
      if (connection >= 0) ::close(connection);
      return;
    }
    const int on = 1;
    ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    connections_.insert(connection);
    connectionThreads_.emplace_back([this, connection] { serve(connection); });
  }
}

void ScriptedServer::serve(int connection) {
  std::string received;
  std::vector<char> buffer(64 * 1024);
  bool keepAlive = true;
  while (keepAlive) {
    if (auto request = takeRequest(received)) {
      keepAlive = reply(connection, *request);
      continue;
    }
    const ssize_t count = ::recv(connection, buffer.data(), buffer.size(), 0);
    if (count <= 0) break;
    received.append(buffer.data(), static_cast<std::size_t>(count));
  }
  const std::lock_guard lock(mutex_);
  connections_.erase(connection);
  ::close(connection);
  changed_.notify_all();
}

bool ScriptedServer::reply(int connection, const ScriptedRequest& request) {
  ScriptedReply reply;
  {
    const std::lock_guard lock(mutex_);
    requests_.push_back(request);
    changed_.notify_all();
  }
  {
    const std::lock_guard lock(handlerMutex_);
    reply = handler_(request);
  }
  if (reply.cutBeforeAnswer) return false;
  if (reply.stall) return true;  // the next recv waits until the client or the server's end breaks it off
  std::string head =
      "HTTP/1.1 " + std::to_string(reply.status) + " Scripted\r\nX-Dropbox-Request-Id: scripted\r\n";
  if (!reply.isEndless) head += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
  for (const std::string& header : reply.headers) head += header + "\r\n";
  if (reply.isEndless) {
    if (sendAll(connection, head + "\r\n")) sendEndlessly(connection, reply.body);
    return false;
  }
  const std::string_view body =
      std::string_view(reply.body).substr(0, reply.cutAfter.value_or(std::string::npos));
  return sendAll(connection, head + "\r\n") && sendAll(connection, body) && !reply.cutAfter;
}

void ScriptedServer::sendEndlessly(int connection, const std::string& body) {
  constexpr std::size_t limit = 256UL * 1024 * 1024;
  for (std::size_t sent = 0; sent < limit && sendAll(connection, body); sent += body.size()) {
    const std::lock_guard lock(mutex_);
    endlessBytes_ += body.size();
  }
}

std::size_t ScriptedServer::endlessBytes() const {
  const std::lock_guard lock(mutex_);
  return endlessBytes_;
}

int ScriptedServer::count(const std::string& route) const {
  const std::lock_guard lock(mutex_);
  return static_cast<int>(std::count_if(requests_.begin(), requests_.end(),
                                        [&](const auto& request) { return request.route == route; }));
}

std::vector<ScriptedRequest> ScriptedServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

bool ScriptedServer::waitForRequests(const std::string& route, int number) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_until(lock, std::chrono::steady_clock::now() + patience, [&] {
    return std::count_if(requests_.begin(), requests_.end(),
                         [&](const auto& request) { return request.route == route; }) >= number;
  });
}

bool ScriptedServer::waitForDisconnect(std::chrono::milliseconds limit) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_until(lock, std::chrono::steady_clock::now() + limit,
                             [&] { return connections_.empty(); });
}

}  // namespace kzv::sdk
