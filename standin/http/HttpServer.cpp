#include "standin/http/HttpServer.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <list>
#include <system_error>
#include <thread>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "standin/http/Connection.h"
#include "standin/http/HttpSession.h"

namespace kzv::standin {
namespace {

constexpr int kBacklog = 1024;
constexpr std::size_t kMaxConnections = 4096;

/// A listening socket; not open on failure, with the reason in `error`.
OwnedFd listenOn(const std::string& host, int port, std::string& error) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (const int failure = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found)) {
    error = ::gai_strerror(failure);
    return OwnedFd();
  }
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, ::freeaddrinfo);
  for (const addrinfo* address = found; address; address = address->ai_next) {
    OwnedFd socket(::socket(address->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int yes = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (::bind(socket.get(), address->ai_addr, address->ai_addrlen) == 0 &&
        ::listen(socket.get(), kBacklog) == 0)
      return socket;
    error = std::strerror(errno);
  }
  return OwnedFd();
}

}  // namespace

class HttpServer::Listener {
 public:
  explicit Listener(HttpHandler handler) : handler_(std::move(handler)) {}

  std::optional<int> start(const std::string& host, int port, std::string& error) {
    socket_ = listenOn(host, port, error);
    if (!socket_.isOpen()) {
      error = "cannot listen on " + host + ":" + std::to_string(port) + ": " + error;
      return std::nullopt;
    }
    accepting_ = std::thread([this] { acceptConnections(); });
    return localPortOf(socket_.get());
  }

  void stop() {
    if (!accepting_.joinable()) return;
    stopSignal_.raise();
    accepting_.join();
  }

 private:
  struct Worker {
    std::atomic<bool> isFinished{false};
    std::thread thread;
  };

  void acceptConnections() {
    while (stopSignal_.waitForInput(socket_.get())) {
      joinFinished();
      OwnedFd accepted(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (accepted.isOpen()) {
        serve(std::move(accepted));
      } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // The connection waits in the backlog until another one is closed.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
    socket_ = OwnedFd();
    for (Worker& worker : workers_) worker.thread.join();
  }

  void joinFinished() {
    workers_.remove_if([](Worker& worker) {
      if (!worker.isFinished) return false;
      worker.thread.join();
      return true;
    });
  }

  // Closes the connection if there is no thread for it.
  void serve(OwnedFd accepted) {
    if (workers_.size() >= kMaxConnections) {
      std::fprintf(stderr, "kzv-service: more than %zu connections\n", kMaxConnections);
      return;
    }
    Worker& worker = workers_.emplace_back();
    try {
      worker.thread = std::thread([this, &worker, socket = std::move(accepted)]() mutable {
        Connection connection(std::move(socket), stopSignal_);
        serveHttp(connection, handler_);
        worker.isFinished = true;
      });
    } catch (const std::system_error& failure) {
      std::fprintf(stderr, "kzv-service: cannot start a thread: %s\n", failure.what());
      workers_.pop_back();
    }
  }

  HttpHandler handler_;
  StopSignal stopSignal_;
  OwnedFd socket_;
  std::thread accepting_;
  std::list<Worker> workers_;  // used by accepting_ only
};

HttpServer::HttpServer(HttpHandler handler) : listener_(std::make_unique<Listener>(std::move(handler))) {}

HttpServer::~HttpServer() { stop(); }

std::optional<int> HttpServer::start(const std::string& host, int port, std::string& error) {
  return listener_->start(host, port, error);
}

void HttpServer::stop() { listener_->stop(); }

}  // namespace kzv::standin
