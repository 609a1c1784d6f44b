#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "foundation/NSRunLoop.h"
#include "sdk/SessionInternals.h"
#include "sdk/wire/ErrorReader.h"
#include "sdk/wire/NetworkThread.h"
#include "sdk/wire/RetryPolicy.h"

namespace kzv::sdk {

/// One request of the service's HTTP API, as data.
struct ServiceRequest {
  enum class Style {
    rpc,  // JSON in the body; api host
    rpcWithoutArgument,
    notify,           // JSON in the body, no authorization; notify host
    contentUpload,    // JSON in a header, bytes in the body; content host
    contentDownload,  // JSON in a header, bytes in the answer; content host
    token             // form in the body, no authorization; api host
  };
  Style style = Style::rpc;
  std::string route;     // "files/get_metadata"
  std::string argument;  // JSON in printable ASCII, or a form
  enum class Repeat {
    never,
    whenRefused,  // after an answer that it was not carried out: 429 or 503 with a time to wait, or
                  // another change of the account in progress
    always        // carrying it out twice does no harm
  };
  Repeat repeat = Repeat::never;
  int shortRetries = RetryPolicy::maxShortRetries;
  bool takesTurn = false;  // an upload that stores a file: subject to WriteTurns
  RequestDescription about;
  std::shared_ptr<BodySource> source{};
  std::shared_ptr<BodySink> sink{};
  std::optional<std::chrono::seconds> timeLimit{};  // as in HttpRequest
};

/// The authorization of a request: a linked account's, or a token that is not in the session.
struct ActingFor {
  std::string userId;       // empty: `bearerToken`
  std::string bearerToken;  // both empty: none
};

struct ServiceAnswer {
  HttpResponse response;
  NSErrorRef error;  // null: success
  /// Set when the account's authorization was withdrawn: the affected linking.
  std::optional<std::uint64_t> lostLinking{};
  /// With an error: the service may have carried out the request, in this attempt or an earlier one, with
  /// only the answer lost. Check the result before reporting a failed change.
  bool mayHaveBeenCarriedOut = false;
};

/// One request in flight, including what its caller need not know about: renewal of an expired token and
/// repetitions. Runs on the network thread and never blocks.
class ServiceCall : public std::enable_shared_from_this<ServiceCall> {
 public:
  using Handler = std::function<void(ServiceAnswer&)>;

  /// Starts the request. Any thread; returns at once.
  /// @param deliverOn  the run loop on which `handler` is called, once; null: the network thread.
  static std::shared_ptr<ServiceCall> start(std::shared_ptr<DBSession::Internals> session,
                                            ActingFor actingFor, ServiceRequest request,
                                            std::shared_ptr<NSRunLoop> deliverOn, Handler handler);
  /// Cancels the request. Any thread; on the thread of `deliverOn` the handler is not called any more after
  /// this has returned.
  void cancel();

  ServiceCall(std::shared_ptr<DBSession::Internals> session, ActingFor actingFor, ServiceRequest request,
              std::shared_ptr<NSRunLoop> deliverOn, Handler handler);

 private:
  void begin();
  void send();
  HttpRequest httpRequest() const;
  void received(HttpResponse& response);
  bool repairAuthorization(const HttpResponse& response);
  void waitForTurn();
  void releaseTurn(WriteTurns::Outcome outcome);
  void noteOutcome(const HttpResponse& response);
  void renewToken(HttpResponse response);
  void tokenRenewed(const TokenRefresh::Outcome& outcome, HttpResponse& refused);
  void lookInStore(HttpResponse refused, NSErrorRef error);
  void lookedInStore(TokenRefresh::Result result);
  void sendWith(const Authorization& authorization);
  bool repeatLater(const HttpResponse& response);
  void fail(NSErrorRef error);
  void finish();
  void abort();

  const std::shared_ptr<DBSession::Internals> session_;
  const ActingFor actingFor_;
  const ServiceRequest request_;
  const std::shared_ptr<NSRunLoop> deliverOn_;
  std::atomic<bool> ended_{false};  // delivered or cancelled

  // Used only on the network thread once begin() has returned.
  Handler handler_;
  Authorization authorization_;
  std::shared_ptr<HttpTransfer> transfer_;
  std::optional<NetworkThread::TimerId> timer_;
  RetryPolicy retryPolicy_;
  std::optional<WriteTurns::WaitId> turnWait_;
  bool hasTurn_ = false;
  bool mayHaveBeenCarriedOut_ = false;
  bool tokenRenewed_ = false;
  bool hasLookedInStore_ = false;
  ServiceAnswer answer_;
};

}  // namespace kzv::sdk
