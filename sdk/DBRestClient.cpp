#include "sdk/DBRestClient.h"

#include <algorithm>
#include <boost/json.hpp>

#include "foundation/Fatal.h"
#include "foundation/Unicode.h"
#include "sdk/ClientInternals.h"
#include "sdk/DBError.h"
#include "sdk/SessionInternals.h"
#include "sdk/wire/ServiceJson.h"
#include "sdk/wire/ServiceLimits.h"

using namespace kzv::sdk;

DBRestClient::DBRestClient(std::shared_ptr<DBSession> session, std::optional<std::string> userId)
    : impl_(std::make_shared<Impl>(*this, std::move(required(session, "a client has a session")),
                                   std::move(userId))) {}

DBRestClient::~DBRestClient() {
  impl_->forgetOwner();
  impl_->setSignIn(nullptr);
  impl_->cancelAll();
}

void DBRestClient::setDelegate(DBRestClientDelegate* delegate) { impl_->setDelegate(delegate); }

void DBRestClient::cancelAllRequests() { impl_->cancelAll(); }

DBRestClient::Impl::Impl(DBRestClient& owner, std::shared_ptr<DBSession> session,
                         std::optional<std::string> userId)
    : session_(std::move(session)), userId_(std::move(userId)), owner_(&owner) {}

void DBRestClient::Impl::setDelegate(DBRestClientDelegate* delegate) {
  const std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

DBRestClient::Impl::Owner DBRestClient::Impl::lockOwner() {
  const std::lock_guard lock(mutex_);
  if (!owner_) return {};
  const std::weak_ptr<DBRestClient> weak = owner_->weak_from_this();
  const std::weak_ptr<DBRestClient> never;
  const bool isShared = weak.owner_before(never) || never.owner_before(weak);
  if (!isShared) return {nullptr, owner_, delegate_};
  auto keep = weak.lock();
  if (!keep) return {};  // its destructor waits for mutex_ at this moment
  DBRestClient* client = keep.get();
  return {std::move(keep), client, delegate_};
}

void DBRestClient::Impl::forgetOwner() {
  const std::lock_guard lock(mutex_);
  owner_ = nullptr;
  delegate_ = nullptr;
}

DBRestClient::Impl::OperationRef DBRestClient::Impl::beginOperation() {
  auto operation = std::make_shared<Operation>();
  operation->runLoop = NSRunLoop::currentRunLoop();
  const std::lock_guard lock(mutex_);
  inFlight_.push_back(operation);
  return operation;
}

std::shared_ptr<ServiceCall> DBRestClient::Impl::send(const OperationRef& operation, ServiceRequest request,
                                                      ServiceCall::Handler handler) {
  if (userId_ && !userId_->empty()) {
    return sendFor(operation, {*userId_, ""}, std::move(request), std::move(handler));
  }
  performLater(operation, [handler = std::move(handler), about = std::move(request.about)] {
    ServiceAnswer answer;
    answer.error = requestError(DBErrorNotLinked, "no account is linked", about);
    handler(answer);
  });
  return nullptr;
}

std::shared_ptr<ServiceCall> DBRestClient::Impl::sendFor(const OperationRef& operation, ActingFor actingFor,
                                                         ServiceRequest request,
                                                         ServiceCall::Handler handler) {
  if (operation->cancelled) return nullptr;
  auto call = ServiceCall::start(session_->internals().shared_from_this(), std::move(actingFor),
                                 std::move(request), operation->runLoop,
                                 [operation, handler = std::move(handler)](ServiceAnswer& answer) {
                                   if (!operation->cancelled) handler(answer);
                                 });
  const std::lock_guard lock(mutex_);
  operation->calls.push_back(call);
  return call;
}

bool DBRestClient::Impl::end(Operation& operation) {
  std::vector<std::shared_ptr<ServiceCall>> calls;
  {
    const std::lock_guard lock(mutex_);
    if (operation.cancelled.exchange(true)) return false;
    calls.swap(operation.calls);
    std::erase_if(inFlight_, [&](const OperationRef& other) { return other.get() == &operation; });
  }
  for (const auto& call : calls) call->cancel();  // those that have ended take no notice
  return true;
}

void DBRestClient::Impl::performLater(const OperationRef& operation, std::function<void()> step) {
  operation->runLoop->perform([operation, step = std::move(step)] {
    if (!operation->cancelled) step();
  });
}

void DBRestClient::Impl::cancelAll() {
  std::vector<OperationRef> operations;
  {
    const std::lock_guard lock(mutex_);
    operations = inFlight_;
  }
  for (const OperationRef& operation : operations) {
    if (end(*operation) && operation->afterCancel) operation->afterCancel();
  }
}

void DBRestClient::Impl::reportLostAuthorization(std::uint64_t linking) {
  DBSession::Internals& internals = session_->internals();
  if (!internals.noteAuthorizationFailure(*userId_, linking)) return;
  if (DBSessionDelegate* delegate = internals.currentDelegate()) {
    delegate->sessionDidReceiveAuthorizationFailure(*session_, *userId_);
  }
}

namespace kzv::sdk {

ServiceRequest rpcRequest(std::string route, const boost::json::object& argument, RequestDescription about) {
  ServiceRequest request;
  request.route = std::move(route);
  request.argument = servicejson::asciiText(argument);
  request.about = std::move(about);
  return request;
}

ServiceRequest readingRequest(std::string route, const boost::json::object& argument,
                              RequestDescription about) {
  ServiceRequest request = rpcRequest(std::move(route), argument, std::move(about));
  request.repeat = ServiceRequest::Repeat::always;
  return request;
}

namespace {
bool isTooDeep(std::string_view path) {
  return static_cast<std::size_t>(std::count(path.begin(), path.end(), '/')) > servicelimits::pathComponents;
}
}  // namespace

std::optional<std::string> servicePath(std::string_view path) {
  if (!path.starts_with('/') || path.find('\0') != std::string_view::npos || !isValidUtf8(path)) {
    return std::nullopt;
  }
  std::string clean;
  for (const char c : path) {
    if (c != '/' || !clean.ends_with('/')) clean += c;
  }
  if (clean.ends_with('/')) clean.pop_back();
  if (isTooDeep(clean)) return std::nullopt;
  return clean;
}

NSErrorRef unacceptablePathError(const RequestDescription& about) {
  return requestError(
      400,
      isTooDeep(about.path) ? "folders lie too deep within each other" : "this is not a path of the service",
      about);
}

}  // namespace kzv::sdk
