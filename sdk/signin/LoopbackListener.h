#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Descriptor.h"

namespace kzv::sdk {

/// Receives the browser's redirect from an OAuth page on the loopback addresses (RFC 8252, section 7.3): a
/// minimal HTTP server on its own thread that answers one path, only to this process's user. Connections are
/// served concurrently, because browsers open spare ones without sending a request.
class LoopbackListener {
 public:
  /// A page for the browser.
  struct Page {
    int status = 200;
    std::string title;  // HTML, as is the text
    std::string text;
    /// May be empty. Called once the page has been sent, because it may end the program.
    std::function<void()> afterwards;
  };
  /// Called with the query of each request for the path, without the "?", still encoded. Runs on the
  /// listener's thread.
  using Handler = std::function<Page(const std::string& query)>;

  /// @param port  0: any. Null when the thread cannot be started, or the port is not free on both loopback
  /// addresses: "localhost" may mean either to a browser, which must not find another program there.
  static std::unique_ptr<LoopbackListener> open(std::uint16_t port, std::string path, Handler handler);
  /// Waits for the thread. REQUIRES another thread than the listener's.
  ~LoopbackListener();
  std::uint16_t port() const noexcept { return port_; }

 private:
  LoopbackListener(std::string path, Handler handler);
  struct Connection;
  bool bindTo(std::uint16_t port);
  bool bindBoth(std::uint16_t port);
  void run();
  void acceptFrom(int socket, std::vector<Connection>& connections) const;
  /// False when the connection must be closed.
  bool serve(Connection& connection) const;
  Page pageFor(const Connection& connection) const;

  const std::string path_;
  const Handler handler_;
  std::uint16_t port_ = 0;
  std::vector<Descriptor> sockets_;
  Descriptor stopSignal_;
  std::thread thread_;
};

}  // namespace kzv::sdk
