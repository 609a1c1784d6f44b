#pragma once

#include <memory>
#include <optional>
#include <string>

#include "standin/http/Http.h"

namespace kzv::standin {

/// An HTTP/1.1 server on TCP with a thread for each connection, so that a slow or stalled exchange delays no
/// other. Call start() and stop() on one thread.
class HttpServer {
 public:
  explicit HttpServer(HttpHandler handler);
  /// Stops.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// Binds and starts to accept connections on a thread of its own. To be called once.
  /// @param host  a name or address. @param port  0 chooses a free one.
  /// @return the port; absent with the reason in `error`.
  std::optional<int> start(const std::string& host, int port, std::string& error);

  /// Stops accepting connections, closes idle and stalled ones, lets exchanges in progress finish within a
  /// few seconds, and waits for all threads. Has no effect when it is not running.
  void stop();

 private:
  class Listener;
  std::unique_ptr<Listener> listener_;
};

}  // namespace kzv::standin
