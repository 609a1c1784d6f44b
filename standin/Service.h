#pragma once

#include <memory>
#include <optional>
#include <string>

#include "standin/ServiceOptions.h"

namespace kzv::standin {

class Dispatcher;
class HttpServer;
struct ServiceState;

/// The whole program except main(): state, routes and listener. Call start() and stop() on one thread.
class Service {
 public:
  /// Opens the state, creates the sample tree and the accounts. Throws std::exception when the state cannot
  /// be opened.
  explicit Service(const ServiceOptions& options);
  /// Stops, and removes the temporary folder.
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  /// @return the port; absent with the reason in `error`.
  std::optional<int> start(std::string& error);
  /// Ends waits, delays and idle connections, and lets requests in progress finish. Blocks for a few seconds
  /// at most.
  void stop();

  /// For tests in the same process.
  ServiceState& state() { return *state_; }

 private:
  std::unique_ptr<ServiceState> state_;
  std::unique_ptr<Dispatcher> dispatcher_;
  std::unique_ptr<HttpServer> server_;
};

}  // namespace kzv::standin
