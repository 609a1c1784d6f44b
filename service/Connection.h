#pragma once

#include <optional>
#include <string>

#include <httplib.h>

#include "service/Http.h"

namespace kzv::service {

/// A signal that stays on: a descriptor that is readable for ever once raised. Thread-safe.
class StopSignal {
 public:
  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  void raise();
  int fd() const { return fd_; }

 private:
  int fd_;
};

/// One accepted socket: buffered reading, writing, and the ways to end it badly. Reads and writes block,
/// within the limits below. Used by its thread only; close() must be called.
class Connection : public httplib::Stream {
 public:
  /// How long a client may keep a connection open without a request, and let one wait for its bytes.
  static constexpr int kIdleTimeoutMs = 600000;
  static constexpr int kTransferTimeoutMs = 120000;

  /// @param stop  outlives the connection.
  Connection(int socket, const StopSignal& stop) : socket_(socket), stop_(stop) {}

  /// Waits for the next request's head; what the library then reads is framingHead() of it.
  /// @return absent: the connection is to be closed; `malformed` says whether the client is to be told why.
  std::optional<HttpRequest> readHead(bool& malformed);

  ssize_t read(char* data, size_t size) override;
  ssize_t write(const char* data, size_t size) override;
  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  socket_t socket() const override { return socket_; }
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;

  /// From now on nothing more is sent.
  void silence() { mute_ = true; }
  /// close() will reset the connection.
  void resetLater() { reset_ = true; }
  /// close() will first hold the connection until the client goes or the server stops.
  void stallLater() { stall_ = true; }
  void closeAfterAnswer() { closeAfter_ = true; }
  bool mustEnd() const { return reset_ || stall_ || mute_ || closeAfter_; }

  void close();

 private:
  bool fill(int timeoutMs, bool endsWithServer);
  bool await(short events, int timeoutMs);
  bool awaitUnlessStopped(int timeoutMs);
  bool peerIsLoopback() const;
  int localPort() const;
  void waitForPeerOrStop();
  void waitUntilDelivered();

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

}  // namespace kzv::service
