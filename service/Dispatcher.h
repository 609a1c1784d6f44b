#pragma once

#include <memory>
#include <string>

#include "service/Routes.h"

namespace kzv::service {

/// From a request to an answer: finds the route, checks in the order of the service (route, content type,
/// argument, token, scope, path root), carries out ordered faults, calls the endpoint, keeps the request log.
/// Thread-safe; handle() blocks as long as the endpoint does.
class Dispatcher {
 public:
  explicit Dispatcher(ServiceState& state);

  /// Never throws.
  void handle(HttpRequest& request, HttpResponse& response);
  /// Ends ordered delays, now and in future.
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
  void withFaults(const std::string& name, RouteStyle style, HttpRequest& request, HttpResponse& response,
                  const std::function<void()>& work);

  ServiceState& state_;
  RouteTable table_;
};

}  // namespace kzv::service
