#pragma once

// For the tests of the stand-in: a service in this process on a free loopback port, and a plain HTTP client
// that shows the whole answer.

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "standin/Service.h"
#include "standin/ServiceState.h"

namespace kzv::standin::testing {

inline constexpr const char* kToken = "token-of-ann";
inline constexpr const char* kOtherToken = "token-of-bob";

struct Answer {
  /// libcurl's result; 0 when the answer arrived completely.
  int curlResult = 0;
  long status = 0;
  /// Names in lower case.
  std::map<std::string, std::string> headers;
  std::string body;

  /// The body, or null when it is not JSON.
  boost::json::value json() const;
  /// ".tag"s of an endpoint error, outermost first, joined with "/".
  std::string errorTags() const;
};

struct HttpCall {
  std::string method = "POST";
  /// Path and query.
  std::string target{};
  std::vector<std::string> headers{};
  std::string body{};
  /// Send the body with chunked transfer coding, in pieces of this size.
  std::size_t chunkBytes = 0;
  long timeoutMs = 20000;
};

/// A running service with two accounts, whose ready tokens are kToken and kOtherToken. Call from any thread.
class TestService {
 public:
  /// Adds the accounts, a free port and, if `admin`, the admin routes to `options`.
  explicit TestService(ServiceOptions options = {}, bool admin = true);

  Answer send(const HttpCall& call) const;
  /// A call in rpc style with JSON.
  Answer rpc(const std::string& route, const std::string& argument, const std::string& token = kToken) const;
  /// A call in upload style.
  Answer upload(const std::string& route, const std::string& argument, const std::string& body,
                const std::string& token = kToken) const;
  Answer download(const std::string& argument, std::vector<std::string> headers = {}) const;
  /// An admin route; fails the test unless it answers 200.
  boost::json::value admin(const std::string& method, const std::string& route,
                           const std::string& body = {}) const;
  /// Another device writes a small file into Ann's account.
  void write(const std::string& path, const std::string& text) const;

  /// Hits of the fault rules, in order.
  std::vector<std::int64_t> faultHits() const;

  /// files/get_metadata of a path or id.
  boost::json::value metadata(const std::string& path) const;

  Service& service() { return *service_; }
  int port() const { return port_; }

 private:
  std::unique_ptr<Service> service_;
  int port_ = 0;
};

/// {"name":"value"}
std::string object(const std::string& name, const std::string& value);

/// The text at a dotted place in a JSON value, as "entries.0.name"; numbers and booleans as text; "" when
/// absent.
std::string at(const boost::json::value& value, const std::string& place);

}  // namespace kzv::standin::testing
