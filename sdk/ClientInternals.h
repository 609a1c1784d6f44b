#pragma once
#include <atomic>
#include <boost/json/fwd.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sdk/DBRestClient.h"
#include "sdk/ServiceCall.h"
#include "sdk/signin/SignIn.h"
#include "sdk/wire/PageSequence.h"
#include "sdk/wire/UnfinishedUploads.h"

namespace kzv::sdk {

/// The state of one operation, which the client keeps to cancel it.
struct Operation {
  std::shared_ptr<NSRunLoop> runLoop;
  std::atomic<bool> cancelled{false};
  std::vector<std::shared_ptr<ServiceCall>> calls;  // guarded by the client's mutex
  std::function<void()> afterCancel{};  // set before the first step; called on the cancelling thread
};

}  // namespace kzv::sdk

/// The state that a client's operations share. Requests in flight hold it, so it may outlive the client; then
/// no callback is called any more.
class DBRestClient::Impl : public std::enable_shared_from_this<DBRestClient::Impl> {
 public:
  using Operation = kzv::sdk::Operation;
  using OperationRef = std::shared_ptr<Operation>;
  using ServiceAnswer = kzv::sdk::ServiceAnswer;
  using ServiceCall = kzv::sdk::ServiceCall;
  using ServiceRequest = kzv::sdk::ServiceRequest;

  Impl(DBRestClient& owner, std::shared_ptr<DBSession> session, std::optional<std::string> userId);

  void setDelegate(DBRestClientDelegate* delegate);
  OperationRef beginOperation();
  /// Sends a request of the operation for the client's account; `handler` runs on the operation's run loop
  /// unless the operation has been cancelled.
  std::shared_ptr<ServiceCall> send(const OperationRef& operation, ServiceRequest request,
                                    ServiceCall::Handler handler);
  std::shared_ptr<ServiceCall> sendFor(const OperationRef& operation, kzv::sdk::ActingFor actingFor,
                                       ServiceRequest request, ServiceCall::Handler handler);
  /// Ends the operation and calls the delegate last. REQUIRES the thread of the callbacks.
  template <class Callback>
  void finish(const OperationRef& operation, Callback callback) {
    if (!end(*operation)) return;
    notify(callback);
  }
  /// The same for a failure; afterwards notifies the session if the authorization was withdrawn.
  template <class Callback>
  void fail(const OperationRef& operation, const ServiceAnswer& answer, Callback callback) {
    finish(operation, callback);
    if (answer.lostLinking) reportLostAuthorization(*answer.lostLinking);
  }
  /// Calls the delegate without ending anything (progress).
  template <class Callback>
  void notify(Callback callback) {
    const Owner owner = lockOwner();
    if (owner.client && owner.delegate) callback(*owner.delegate, *owner.client);
  }
  /// Runs `step` on the operation's run loop, unless the operation has been cancelled by then.
  void performLater(const OperationRef& operation, std::function<void()> step);
  void cancelAll();
  void forgetOwner();
  /// Links the account and ends the operation, which must be one that loads an access token.
  void linkAndFinish(const OperationRef& operation, const DBCredential& credential);
  /// Once this has returned, linkAndFinish links nothing.
  void withdrawLinking();

  kzv::sdk::UnfinishedUploads uploads;  // the thread of the callbacks only

  /// The pages of one run of the change feed, one call of loadDelta each. The thread of the callbacks only.
  struct DeltaPages {
    std::string promised;  // the next page's cursor, from the last page
    kzv::sdk::PageSequence pages{kzv::sdk::servicelimits::changesAtOnce};
  } delta;

  /// The pending sign-in, or null.
  std::shared_ptr<kzv::sdk::SignIn> signIn() const;
  void setSignIn(std::shared_ptr<kzv::sdk::SignIn> signIn);

  const std::shared_ptr<DBSession>& session() const noexcept { return session_; }
  const std::optional<std::string>& userId() const noexcept { return userId_; }

 private:
  struct Owner {
    std::shared_ptr<DBRestClient> keep;  // null for a client that no shared_ptr owns
    DBRestClient* client = nullptr;
    DBRestClientDelegate* delegate = nullptr;
  };
  Owner lockOwner();
  bool end(Operation& operation);
  void reportLostAuthorization(std::uint64_t linking);

  const std::shared_ptr<DBSession> session_;
  const std::optional<std::string> userId_;
  const DBSession::Internals::Withdrawn isWithdrawn_ = std::make_shared<bool>(false);

  mutable std::mutex mutex_;
  DBRestClient* owner_;                       // guarded by mutex_
  DBRestClientDelegate* delegate_ = nullptr;  // guarded by mutex_
  std::shared_ptr<kzv::sdk::SignIn> signIn_;  // guarded by mutex_
  std::vector<OperationRef> inFlight_;        // guarded by mutex_
};

namespace kzv::sdk {

/// Base of the client's operations, which their requests keep alive until the callback. Members are called on
/// the thread of the callbacks unless they say otherwise.
class ClientOperation : public std::enable_shared_from_this<ClientOperation> {
 public:
  using ImplRef = std::shared_ptr<DBRestClient::Impl>;
  virtual ~ClientOperation() = default;

 protected:
  ClientOperation(ImplRef client, RequestDescription about)
      : client_(std::move(client)), operation_(client_->beginOperation()), about_(std::move(about)) {}

  /// Calls the delegate's failure callback of this operation.
  virtual void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client,
                             const NSErrorRef& error) = 0;

  /// A handler that calls a member function of the derived class and keeps this object alive.
  template <class Derived, class Answer>
  ServiceCall::Handler handler(void (Derived::*received)(Answer&)) {
    return [self = std::static_pointer_cast<Derived>(shared_from_this()), received](ServiceAnswer& answer) {
      (self.get()->*received)(answer);
    };
  }
  /// Sends a request for the client's account; its answer goes to a member function.
  template <class Derived, class Answer>
  void send(ServiceRequest&& request, void (Derived::*received)(Answer&)) {
    client_->send(operation_, std::move(request), handler(received));
  }
  /// Ends the operation with a call of the delegate: `callback(delegate, client)`.
  template <class Callback>
  void finish(Callback callback) {
    client_->finish(operation_, callback);
  }
  void fail(const ServiceAnswer& answer) {
    client_->fail(operation_, answer, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      notifyFailure(delegate, client, answer.error);
    });
  }
  void fail(const NSErrorRef& error) { fail(ServiceAnswer{{}, error}); }
  void failInvalid(const HttpResponse& response) { fail(invalidResponseError(response, about_)); }
  /// For failures before any request was sent: the callback must not run before the call has returned.
  void failLater(const NSErrorRef& error) {
    client_->performLater(operation_, [self = shared_from_this(), error] { self->fail(error); });
  }

  const ImplRef client_;
  const DBRestClient::Impl::OperationRef operation_;
  const RequestDescription about_;
};

/// A request with a JSON argument in its body.
ServiceRequest rpcRequest(std::string route, const boost::json::object& argument, RequestDescription about);
/// The same for one that only reads, so that it may be repeated.
ServiceRequest readingRequest(std::string route, const boost::json::object& argument,
                              RequestDescription about);
/// The path in the service's form ("" for the root, no doubled or trailing slashes); nothing when it is
/// invalid (not beginning with "/", not UTF-8, containing a NUL, of more components than servicelimits
/// allow).
std::optional<std::string> servicePath(std::string_view path);
NSErrorRef unacceptablePathError(const RequestDescription& about);

}  // namespace kzv::sdk
