#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "foundation/Secrets.h"
#include "sdk/wire/HttpRequest.h"
#include "sdk/wire/ServiceLimits.h"

namespace kzv::sdk {

/// One HTTP exchange: created by the caller and owned by the network thread from start() to `done`.
struct HttpTransfer {
  using Done = std::function<void(HttpResponse&)>;

  HttpRequest request;
  Done done;  // called on the network thread, exactly once; not after cancel()
  HttpResponse response{};

  // Used only by the network thread.
  void* easy = nullptr;
  void* headerList = nullptr;
  bool bodyBegun = false;

  /// Clears tokens in headers and in the bodies of sign-in requests.
  ~HttpTransfer() {
    for (std::string& header : request.headers) clearSecret(header);
    clearSecret(request.body);
  }
};

/// The thread that does all HTTP of the process with one libcurl multi handle, hence one connection pool, one
/// DNS cache and one TLS session cache. It sleeps in curl_multi_poll until a socket, a timer or a command is
/// ready. Blocks that run on it must not wait; only writing a download to disk may take time.
class NetworkThread {
 public:
  using Clock = std::chrono::steady_clock;
  using Block = std::function<void()>;
  using TimerId = std::uint64_t;

  /// The current thread object, or a new one if none is referenced. Any thread.
  static std::shared_ptr<NetworkThread> shared();
  /// Ends the thread; transfers in flight are dropped without `done`. Blocks until it has ended, unless
  /// called on it.
  ~NetworkThread();

  /// Sets the time limits for connecting, for silence during a transfer, and for a whole request without a
  /// file, after which a transfer fails with CURLE_OPERATION_TIMEDOUT. Applies to later transfers. Any
  /// thread.
  static void setTimeouts(std::chrono::milliseconds connect, std::chrono::seconds silence,
                          std::chrono::milliseconds smallRequest = servicelimits::smallRequest);

  /// Any thread; returns at once.
  void start(std::shared_ptr<HttpTransfer> transfer);
  /// Aborts the transfer without calling `done`, if it has not ended yet. Any thread; returns at once.
  void cancel(std::shared_ptr<HttpTransfer> transfer);
  /// Any thread; returns at once.
  void perform(Block block);

  /// REQUIRES the network thread.
  TimerId performAfter(Clock::duration wait, Block block);
  /// Ignores unknown ids. REQUIRES the network thread.
  void cancelTimer(TimerId timer);

 private:
  class Loop;
  NetworkThread();

  const std::shared_ptr<Loop> loop_;  // shared with the thread, which may outlive this object by a moment
  std::thread thread_;
};

}  // namespace kzv::sdk
