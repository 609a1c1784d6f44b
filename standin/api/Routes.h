#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "standin/ServiceState.h"
#include "standin/api/ArgReader.h"
#include "standin/http/Http.h"
#include "standin/store/Accounts.h"

namespace kzv::standin {

/// How a route's argument and body are sent (public documentation of the service, "request and response
/// formats").
enum class RouteStyle { rpc, upload, download };

enum class RouteAuth { user, none };

/// A call whose form, token and scope were checked. For the connection's thread.
struct Call {
  ServiceState& state;
  HttpRequest& request;
  HttpResponse& response;
  /// Absent on routes without authorization.
  std::optional<Account> account;
  /// The root of the request's paths.
  PathRoot root;
  std::string accessToken;

  /// Answers with JSON.
  void reply(std::string json);
};

/// Carries out one call; may block. Throws ApiError, BadArgument, DatabaseError.
using Endpoint = std::function<void(Call&)>;

/// A route of the API.
struct Route {
  RouteStyle style = RouteStyle::rpc;
  RouteAuth auth = RouteAuth::user;
  /// Empty: none needed.
  std::string scope;
  bool hasArgument = true;
  /// Parses the argument. Throws BadArgument. The reader is valid during the call only.
  std::function<Endpoint(const ArgReader&)> decode;
};

/// Writes JSON text into the request log as the call's argument; the caller omits secrets.
using NoteArgument = std::function<void(std::string json)>;

/// Another route: sign-in, admin. Throws ApiError, BadArgument, DatabaseError.
using PlainRoute = std::function<void(HttpRequest&, HttpResponse&, const NoteArgument&)>;

struct RouteTable {
  /// By name, as "files/list_folder".
  std::map<std::string, Route, std::less<>> api;
  /// By method and path, as "POST /oauth2/token"; subject to faults and logged.
  std::map<std::string, PlainRoute, std::less<>> plain;
  /// The same for the admin routes, which are exempt from faults and not logged.
  std::map<std::string, PlainRoute, std::less<>> admin;
};

void addAccountRoutes(RouteTable& table);
void addFilesReadRoutes(RouteTable& table);
void addDownloadRoutes(RouteTable& table);
void addSearchRoutes(RouteTable& table);
void addFilesWriteRoutes(RouteTable& table);
void addUploadRoutes(RouteTable& table);
void addSharingRoutes(RouteTable& table);
/// The token route.
void addSignInRoutes(RouteTable& table, ServiceState& state);
/// The page in the browser.
void addAuthorizePage(RouteTable& table, ServiceState& state);
void addAdminRoutes(RouteTable& table, ServiceState& state);

/// The fields as a JSON object; values other than those of `shown` are replaced by "(hidden)".
std::string redactedFields(const std::map<std::string, std::string>& fields,
                           std::initializer_list<std::string_view> shown);

/// Reads a whole body into memory. Throws ApiError when it is longer than `maxBytes` or the connection fails.
std::string readWholeBody(HttpRequest& request, std::size_t maxBytes);

}  // namespace kzv::standin
