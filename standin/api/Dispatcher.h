#pragma once

#include <memory>
#include <string>

#include "standin/api/Routes.h"

namespace kzv::standin {

/// Answers requests: finds the route, checks in the service's order (route, content type, argument, token,
/// scope, path root), injects faults, calls the endpoint, writes the request log. Thread-safe; handle()
/// blocks as long as the endpoint does.
class Dispatcher {
 public:
  explicit Dispatcher(ServiceState& state);

  /// Never throws.
  void handle(HttpRequest& request, HttpResponse& response);
  /// Ends current and later injected delays.
  void stop();

 private:
  void dispatch(HttpRequest& request, HttpResponse& response, std::uint64_t& logNumber);
  void serveApi(const std::string& name, HttpRequest& request, HttpResponse& response,
                std::uint64_t& logNumber);
  void serveRoute(const std::string& name, const Route& route, HttpRequest& request, HttpResponse& response,
                  std::uint64_t logNumber);
  void servePlain(const std::string& key, const PlainRoute& route, HttpRequest& request,
                  HttpResponse& response, std::uint64_t& logNumber);
  void serveAdmin(const PlainRoute& route, HttpRequest& request, HttpResponse& response);

  std::string argumentText(const Route& route, HttpRequest& request);
  std::string accessToken(const Route& route, const HttpRequest& request);
  void authorize(const Route& route, Call& call);
  void applyPathRoot(Call& call);

  ServiceState& state_;
  RouteTable table_;
};

}  // namespace kzv::standin
