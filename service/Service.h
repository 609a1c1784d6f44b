#pragma once

#include <memory>
#include <optional>
#include <string>

#include "service/ServiceOptions.h"

namespace kzv::service {

class Dispatcher;
class HttpServer;
struct ServiceState;

/// The whole program but its main(): state, routes and listener. start() and stop() from one thread.
class Service {
 public:
  /// Opens the state, seeds it, makes the accounts. Throws std::exception when the state cannot be opened.
  explicit Service(const ServiceOptions& options);
  /// Stops, and removes the temporary folder.
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  /// @return the port; absent with the reason in `error`.
  std::optional<int> start(std::string& error);
  /// Ends waits, delays and idle connections, lets running exchanges end. Blocks for a few seconds at most.
  void stop();

  /// For tests in the same process.
  ServiceState& state() { return *state_; }

 private:
  std::unique_ptr<ServiceState> state_;
  std::unique_ptr<Dispatcher> dispatcher_;
  std::unique_ptr<HttpServer> server_;
};

}  // namespace kzv::service
