#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

/// Waits on this machine's loopback addresses for the browser that an OAuth page sends back (RFC 8252,
/// section 7.3): a tiny HTTP server on a thread of its own that answers one path.
class LoopbackListener {
 public:
  /// What the browser shows.
  struct Page {
    int status = 200;
    std::string title;  // HTML, as is the text
    std::string text;
    /// Called once the page is on its way, if there is one: what it sets off may end the program.
    std::function<void()> afterwards;
  };
  /// Gets the query of each request for the path, without the "?", still encoded. Runs on the listener's
  /// thread.
  using Handler = std::function<Page(const std::string& query)>;

  /// @param port  0: any. Null when the port, or a thread, cannot be had.
  static std::unique_ptr<LoopbackListener> open(std::uint16_t port, std::string path, Handler handler);
  /// Waits for the thread. REQUIRES another thread than the listener's.
  ~LoopbackListener();
  std::uint16_t port() const noexcept { return port_; }

 private:
  LoopbackListener(std::string path, Handler handler);
  bool bindTo(std::uint16_t port);
  void run();
  void serve(int connection) const;
  Page pageFor(const std::string& requestHead) const;

  const std::string path_;
  const Handler handler_;
  std::uint16_t port_ = 0;
  std::vector<int> sockets_;
  int stopSignal_ = -1;
  std::thread thread_;
};
