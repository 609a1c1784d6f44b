#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "standin/OwnedFd.h"

namespace kzv::standin {

/// A flag that threads can poll: its descriptor becomes and stays readable once it is raised. Thread-safe.
class StopSignal {
 public:
  StopSignal();

  void raise();
  /// Blocks until `fd` is readable or has failed (true), or the signal is raised (false).
  bool waitForInput(int fd) const;
  int fd() const { return fd_.get(); }

 private:
  OwnedFd fd_;
};

/// The local port of a TCP socket; 0 when it has none.
int localPortOf(int socket);

/// An accepted socket: buffered reading, writing, and the ways to close it. Calls block, reads and writes for
/// at most kTransferTimeout. One thread at a time.
class Connection {
 public:
  /// How long a client may leave a connection open without sending a request.
  static constexpr std::chrono::seconds kIdleTimeout{600};
  /// How long a client may take to send a request's head, or to send or accept the next piece of a body.
  static constexpr std::chrono::seconds kTransferTimeout{120};

  /// @param stop  must outlive the connection.
  Connection(OwnedFd socket, const StopSignal& stop);

  /// Received bytes that have not been consumed.
  std::string_view buffered() const { return std::string_view(buffer_).substr(position_); }
  void consume(std::size_t bytes) { position_ += bytes; }

  /// Waits for the first byte of the next request. False when the client has closed the connection, it has
  /// been idle for too long, or the server is stopping.
  bool waitForRequest();
  /// Starts the common time limit of the following calls of receive().
  void startReadTimeout() { readDeadline_ = std::chrono::steady_clock::now() + kTransferTimeout; }
  /// Adds at least one byte to the buffer. False when the client has closed the connection, or on time-out.
  bool receive();
  /// Sends both texts, in one packet if they fit. False when the client has closed the connection, or on
  /// time-out.
  bool send(std::string_view first, std::string_view second = {});

  bool peerIsLoopback() const;
  int localPort() const { return localPortOf(socket_.get()); }

  /// Closes with RST once the client has acknowledged the sent bytes.
  void reset();
  /// Sends nothing more; blocks until the client closes its side or the server stops.
  void stall();
  void close();

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  bool waitFor(short events, TimePoint deadline);

  OwnedFd socket_;
  const StopSignal& stop_;
  TimePoint readDeadline_;
  std::string buffer_;
  std::size_t position_ = 0;  // of the first byte that has not been consumed
};

}  // namespace kzv::standin
