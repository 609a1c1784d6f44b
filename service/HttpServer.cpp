#include "service/HttpServer.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <list>
#include <mutex>
#include <thread>

#include <arpa/inet.h>
#include <httplib.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "service/Encoding.h"
#include "service/HttpHead.h"
#include "service/Invariant.h"

namespace kzv::service {
namespace {

using std::chrono::steady_clock;

constexpr std::size_t kMaxHeadBytes = 262144;
constexpr std::size_t kReadBytes = 65536;
constexpr std::size_t kPieceBytes = 262144;
constexpr int kIdleTimeoutMs = 600000;
constexpr int kTransferTimeoutMs = 120000;
constexpr int kStopGraceMs = 3000;
// A body nobody wanted is read to its end, so that the client gets its answer; beyond this the connection is
// closed.
constexpr std::uint64_t kMaxDrainedBytes = 512ULL << 20;
constexpr std::size_t kMaxThreads = 4096;

/// A signal that stays on: readable for ever once raised.
class StopSignal {
 public:
  StopSignal() : fd_(eventfd(0, EFD_CLOEXEC)) {
    requireInvariant(fd_ >= 0, "an event descriptor can be made");
  }
  ~StopSignal() { ::close(fd_); }
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;
  void raise() {
    const std::uint64_t one = 1;
    requireInvariant(::write(fd_, &one, sizeof one) == sizeof one, "an event can be signalled");
  }
  int fd() const { return fd_; }

 private:
  int fd_;
};

/// Starts a thread whenever none is idle. With a fixed pool, idle keep-alive connections or ordered delays
/// would hold every thread while a new request waits.
class ConnectionThreads : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> task) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    tasks_.push_back(std::move(task));
    if (idle_ < tasks_.size() && threads_.size() < kMaxThreads) {
      threads_.emplace_back([this] { work(); });
    } else {
      wake_.notify_one();
    }
  }

  void shutdown() override {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    for (auto& thread : threads_) thread.join();
  }

 private:
  void work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      ++idle_;
      wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
      --idle_;
      if (tasks_.empty()) return;
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      task = nullptr;
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::list<std::function<void()>> tasks_;  // guarded by mutex_
  std::list<std::thread> threads_;          // guarded by mutex_ until shutdown()
  std::size_t idle_ = 0;                    // guarded by mutex_
  bool stopping_ = false;                   // guarded by mutex_
};

/// One accepted socket: buffered reading, writing, and the ways to end it badly. Used by its thread only.
class Connection : public httplib::Stream {
 public:
  Connection(int socket, const StopSignal& stop) : socket_(socket), stop_(stop) {}

  /// Waits for the next request's head. Absent: the connection is to be closed. `malformed` says whether to
  /// say so.
  std::optional<HttpRequest> readHead(bool& malformed) {
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
    substitute_ = framingHead(*request);
    substitutePosition_ = 0;
    return request;
  }

  ssize_t read(char* data, size_t size) override {
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

  ssize_t write(const char* data, size_t size) override {
    if (mute_) return -1;
    for (;;) {
      const ssize_t count = ::send(socket_, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count >= 0) return count;
      if (errno == EINTR) continue;
      if (errno != EAGAIN || !await(POLLOUT, kTransferTimeoutMs)) return -1;
    }
  }

  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  socket_t socket() const override { return socket_; }
  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    ip.clear();
    port = 0;
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    ip.clear();
    port = 0;
  }

  /// From now on nothing more is sent.
  void silence() { mute_ = true; }
  void resetLater() { reset_ = true; }
  void stallLater() { stall_ = true; }
  bool mustEnd() const { return reset_ || stall_ || mute_ || closeAfter_; }
  void closeAfterAnswer() { closeAfter_ = true; }

  void close() {
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

 private:
  // Reads more into the buffer. An idle connection also ends with the server; an exchange under way may
  // finish.
  bool fill(int timeoutMs, bool endsWithServer) {
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
  bool await(short events, int timeoutMs) {
    pollfd waits[2] = {{socket_, events, 0}, {stop_.fd(), POLLIN, 0}};
    const int ready = pollRetrying(waits, 2, timeoutMs);
    if (ready > 0 && waits[0].revents == 0) return pollRetrying(waits, 1, kStopGraceMs) > 0;
    return ready > 0;
  }

  bool awaitUnlessStopped(int timeoutMs) {
    pollfd waits[2] = {{socket_, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
    return pollRetrying(waits, 2, timeoutMs) > 0 && waits[1].revents == 0;
  }

  static int pollRetrying(pollfd* waits, nfds_t count, int timeoutMs) {
    for (;;) {
      const int ready = ::poll(waits, count, timeoutMs);
      if (ready >= 0 || errno != EINTR) return ready;
    }
  }

  bool peerIsLoopback() const {
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

  void waitForPeerOrStop() {
    for (;;) {
      pollfd waits[2] = {{socket_, POLLIN | POLLRDHUP, 0}, {stop_.fd(), POLLIN, 0}};
      if (::poll(waits, 2, -1) < 0 && errno == EINTR) continue;
      if (waits[1].revents != 0 || (waits[0].revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0) return;
      char ignored[4096];
      if (::recv(socket_, ignored, sizeof ignored, 0) <= 0) return;
    }
  }

  // A reset discards what the client's side has not acknowledged; the ordered number of bytes should get
  // there.
  void waitUntilDelivered() {
    for (int i = 0; i < 500; ++i) {
      int queued = 0;
      if (::ioctl(socket_, SIOCOUTQ, &queued) != 0 || queued == 0) return;
      pollfd wait{socket_, POLLRDHUP, 0};
      ::poll(&wait, 1, 2);
    }
  }

  int socket_;
  const StopSignal& stop_;
  std::string buffer_;
  std::size_t position_ = 0;
  std::string substitute_;
  std::size_t substitutePosition_ = 0;
  bool mute_ = false;
  bool reset_ = false;
  bool stall_ = false;
  bool closeAfter_ = false;
};

/// What the library's handler, which sees only the framing, needs of the exchange on this thread.
struct Exchange {
  Connection* connection = nullptr;
  HttpRequest* request = nullptr;
};
thread_local Exchange currentExchange;

/// Sends the pieces of a body and spoils it as ordered.
class AnswerWriter {
 public:
  AnswerWriter(Connection& connection, HttpResponse response, std::shared_ptr<TransferCount> transfer)
      : connection_(connection), response_(std::move(response)), transfer_(std::move(transfer)) {}

  std::uint64_t sizeBytes() const {
    return response_.stream ? response_.stream->sizeBytes : response_.body.size();
  }

  bool writePiece(std::uint64_t offset, const httplib::DataSink& sink) {
    const std::uint64_t end = std::min(sizeBytes(), faultAt());
    if (offset >= end && offset < sizeBytes()) return breakOff();
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(kPieceBytes, end - offset));
    std::string piece = response_.stream ? response_.stream->read(offset, size)
                                         : response_.body.substr(static_cast<std::size_t>(offset), size);
    if (piece.empty()) return false;
    flip(piece, offset);
    transfer_->bytesOut += piece.size();
    if (sink.write(piece.data(), piece.size())) return true;
    transfer_->bytesOut -= piece.size();
    return false;
  }

 private:
  std::uint64_t faultAt() const {
    if (!response_.fault) return UINT64_MAX;
    return std::min(response_.fault->resetAfter.value_or(UINT64_MAX),
                    response_.fault->stallAfter.value_or(UINT64_MAX));
  }

  bool breakOff() {
    response_.fault->happened();
    if (faultAt() == response_.fault->resetAfter) {
      connection_.resetLater();
    } else {
      connection_.stallLater();
    }
    connection_.silence();
    return false;
  }

  void flip(std::string& piece, std::uint64_t offset) {
    if (!response_.fault || !response_.fault->flipAt) return;
    const std::uint64_t at = *response_.fault->flipAt;
    if (at < offset || at >= offset + piece.size()) return;
    response_.fault->happened();
    piece[static_cast<std::size_t>(at - offset)] ^= 0x01;
  }

  Connection& connection_;
  HttpResponse response_;
  std::shared_ptr<TransferCount> transfer_;
};

}  // namespace

/// The library's server with the reading of heads and the life of connections taken over.
class HttpServer::Listener : public httplib::Server {
 public:
  explicit Listener(HttpServer::Handler handler) : handler_(std::move(handler)) {
    new_task_queue = [] { return new ConnectionThreads; };
    set_tcp_nodelay(true);
    // What the library tells clients about the connection; Connection::readHead() is what keeps to it.
    set_keep_alive_timeout(kIdleTimeoutMs / 1000);
    set_keep_alive_max_count(1000000);
    // Sockets block for as long as the waits in Connection say; a client that does not read is given up after
    // this.
    set_write_timeout(std::chrono::seconds(120));
    set_read_timeout(std::chrono::seconds(120));
    set_socket_options([this](socket_t socket) {
      const int yes = 1;
      ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
      listenSocket_ = socket;
    });
    Post("/", [this](const httplib::Request&, httplib::Response& out, const httplib::ContentReader& reader) {
      serve(out, reader);
    });
    Get("/", [this](const httplib::Request&, httplib::Response& out) {  // HEAD comes here
      serve(out, httplib::ContentReader([](httplib::ContentReceiver) { return true; }, nullptr));
    });
  }

  std::optional<int> start(const std::string& host, int port, std::string& error) {
    const int bound = port == 0 ? bind_to_any_port(host) : (bind_to_port(host, port) ? port : -1);
    if (bound <= 0) {
      error = "cannot listen on " + host + ":" + std::to_string(port) + ": " + std::strerror(errno);
      return std::nullopt;
    }
    // The library's backlog of 5 turns a burst of connections away.
    ::listen(listenSocket_, 1024);
    accepting_ = std::thread([this] { listen_after_bind(); });
    return bound;
  }

  void finish() {
    stopSignal_.raise();
    if (!accepting_.joinable()) return;
    // stop() before the accept loop has begun would be lost.
    while (!is_running() && steady_clock::now() < startDeadline_) std::this_thread::yield();
    httplib::Server::stop();
    accepting_.join();
  }

 private:
  // Private in the base class, but virtual: the place where the library offers a connection.
  bool process_and_close_socket(socket_t socket) override {
    Connection connection(socket, stopSignal_);
    bool malformed = false;
    while (auto request = connection.readHead(malformed)) {
      currentExchange = {&connection, &*request};
      bool closed = false;
      const bool answered = process_request(connection, false, closed, nullptr);
      currentExchange = {};
      if (!answered || closed || connection.mustEnd()) break;
    }
    if (malformed) {
      constexpr std::string_view answer =
          "HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: 22\r\n"
          "Connection: close\r\n\r\nMalformed HTTP request";
      connection.httplib::Stream::write(std::string(answer));
    }
    connection.close();
    return true;
  }

  void serve(httplib::Response& out, const httplib::ContentReader& reader) {
    Connection& connection = *currentExchange.connection;
    HttpRequest& request = *currentExchange.request;
    const bool isHead = request.method == "HEAD";
    bool consumed = isHead;
    bool broken = false;
    request.readBody = [&](const std::function<bool(std::string_view)>& sink) {
      requireInvariant(!consumed || isHead, "a request body is read once");
      consumed = true;
      if (isHead) return true;
      broken = !reader([&](const char* data, std::size_t size) {
        request.transfer->bytesIn += size;
        return sink({data, size});
      });
      return !broken;
    };
    HttpResponse response;
    handler_(request, response);
    const bool goesUnanswered = response.fault && response.fault->dropAnswer;
    if (!consumed && !goesUnanswered) drain(request);
    if (broken) connection.closeAfterAnswer();
    request.readBody = nullptr;
    send(connection, request, std::move(response), out);
  }

  static void drain(HttpRequest& request) {
    std::uint64_t drained = 0;
    request.readBody([&](std::string_view bytes) { return (drained += bytes.size()) <= kMaxDrainedBytes; });
  }

  static void send(Connection& connection, HttpRequest& request, HttpResponse response,
                   httplib::Response& out) {
    out.status = response.status;
    for (const auto& [name, value] : response.headers) out.set_header(name, value);
    if (response.fault && response.fault->dropAnswer) {
      response.fault->happened();
      connection.silence();
      connection.resetLater();
      return;
    }
    if (response.contentType.empty()) return;
    const std::string contentType = response.contentType;
    if (!response.stream && !response.fault) {
      request.transfer->bytesOut += response.body.size();
      out.set_content(response.body, contentType);
      return;
    }
    const auto writer = std::make_shared<AnswerWriter>(connection, std::move(response), request.transfer);
    if (writer->sizeBytes() == 0) {
      out.set_content("", contentType);
      return;
    }
    out.set_content_provider(static_cast<std::size_t>(writer->sizeBytes()), contentType,
                             [writer](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                               return writer->writePiece(offset, sink);
                             });
  }

  HttpServer::Handler handler_;
  StopSignal stopSignal_;
  int listenSocket_ = -1;
  std::thread accepting_;
  steady_clock::time_point startDeadline_ = steady_clock::now() + std::chrono::seconds(10);
};

HttpServer::HttpServer(Handler handler) : listener_(std::make_unique<Listener>(std::move(handler))) {}

HttpServer::~HttpServer() { stop(); }

std::optional<int> HttpServer::start(const std::string& host, int port, std::string& error) {
  return listener_->start(host, port, error);
}

void HttpServer::stop() {
  if (listener_) listener_->finish();
}

}  // namespace kzv::service
