#include "service/HttpServer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include <httplib.h>
#include <sys/socket.h>

#include "service/Connection.h"
#include "service/ConnectionThreads.h"
#include "service/Invariant.h"

namespace kzv::service {
namespace {

using std::chrono::steady_clock;

constexpr std::size_t kPieceBytes = 262144;
// A body nobody wanted is read to its end, so that the client gets its answer; beyond this the connection is
// closed.
constexpr std::uint64_t kMaxDrainedBytes = 512ULL << 20;

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
    set_keep_alive_timeout(Connection::kIdleTimeoutMs / 1000);
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
