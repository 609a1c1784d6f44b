#pragma once

#include <functional>
#include <memory>
#include <string>

#include "service/Http.h"

namespace kzv::service {

/// HTTP/1.1 over TCP with keep-alive, chunked request bodies and `Expect: 100-continue`, on cpp-httplib. A
/// thread per connection, made when needed: a slow or stalled exchange holds up nobody else.
class HttpServer {
 public:
  /// Called on the connection's thread, from many threads at once; may block. Must not throw.
  using Handler = std::function<void(HttpRequest&, HttpResponse&)>;

  explicit HttpServer(Handler handler);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// Binds and starts to accept on a thread of its own. @param port 0 chooses a free one.
  /// @return the port, or absent with the reason in `error`.
  std::optional<int> start(const std::string& host, int port, std::string& error);

  /// Accepts no more, lets running exchanges end, wakes idle and stalled connections, and waits for all.
  /// Blocks.
  void stop();

 private:
  class Listener;
  std::unique_ptr<Listener> listener_;
};

}  // namespace kzv::service
