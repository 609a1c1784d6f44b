#include "accounts/DBAuthHelperOSXfix.h"

#include <utility>

#include "filemanager/KZVDropboxFileManager.h"
#include "foundation/DispatchQueue.h"
#include "foundation/Fatal.h"
#include "foundation/NSApplication.h"
#include "foundation/NSWorkspace.h"
#include "support/KZVDropboxFSSupport.h"

const std::shared_ptr<DBAuthHelperOSXfix>& DBAuthHelperOSXfix::sharedHelper() {
  static const auto& helper =
      *new std::shared_ptr<DBAuthHelperOSXfix>(std::make_shared<DBAuthHelperOSXfix>());
  return helper;
}

DBAuthHelperOSXfix::~DBAuthHelperOSXfix() { NSNotificationCenter::defaultCenter().removeObserver(this); }

// Only the first phase is guarded, on purpose: a person who starts again while tokens are being requested
// gets a new page on the same client, rather than nothing because an answer is late.
void DBAuthHelperOSXfix::authenticate(SignInCode code) {
  if (loading.exchange(true)) return;
  postStateChangedNotification(nullptr);
  restClient()->loadRequestToken(code);
}

void DBAuthHelperOSXfix::cancel() {
  ++cancelCount_;
  const auto thread = KZVDropboxFileManager::dropboxThread();
  if (!thread) return endSignIn();
  // On the service thread, where sign-ins start and their callbacks run: so none can be in flight.
  KZVDropboxFSSupport::performBlockInBackgroundAndWait([this] { endSignIn(); }, *thread);
}

void DBAuthHelperOSXfix::endSignIn() {
  NSNotificationCenter::defaultCenter().removeObserver(this);
  const auto client =
      restClient_.update([](std::shared_ptr<DBRestClient>& held) { return std::exchange(held, nullptr); });
  loading = false;
  linkedUserId_.set(std::nullopt);
  if (!client) return;
  client->withdrawSignIn();
  client->setDelegate(nullptr);
  client->cancelAllRequests();
}

std::shared_ptr<DBRestClient> DBAuthHelperOSXfix::restClient() {
  return restClient_.update([&](std::shared_ptr<DBRestClient>& client) {
    if (!client) {
      client = std::make_shared<DBRestClient>(
          required(DBSession::sharedSession(), "a shared session is installed"), std::nullopt);
      client->setDelegate(this);
    }
    return client;
  });
}

void DBAuthHelperOSXfix::postStateChangedNotification(const NSErrorRef& error) {
  NSNotification notification;
  notification.name = DBAuthHelperOSXStateChangedNotification;
  notification.object = shared_from_this();
  if (error) notification.userInfo = NSDictionary::with({{"error", error}});
  NSNotificationCenter::defaultCenter().post(notification);
}

void DBAuthHelperOSXfix::restClientLoadedRequestToken(DBRestClient& client) {
  loading = false;
  postStateChangedNotification(nullptr);
  auto& center = NSNotificationCenter::defaultCenter();
  center.removeObserver(this);  // a sign-in that this one replaces may have added one
  center.addObserver(this, NSApplicationDidBecomeActiveNotification, nullptr,
                     [this](const NSNotification& activation) { applicationDidBecomeActive(activation); });
  NSWorkspace::sharedWorkspace().openURL(client.authorizeURL());
}

void DBAuthHelperOSXfix::loadRequestTokenFailedWithError(DBRestClient& client, const NSErrorRef& error) {
  loading = false;
  if (!client.requestTokenLoaded()) NSNotificationCenter::defaultCenter().removeObserver(this);
  postStateChangedNotification(error);
}

void DBAuthHelperOSXfix::applicationDidBecomeActive(const NSNotification& /*notification*/) {
  auto client = restClient_.get();
  if (!client || !client->requestTokenLoaded() || isLoading()) return;
  // `loading` stays false, on purpose: a second activation before the answer repeats the request.
  postStateChangedNotification(nullptr);
  requestAccessToken(std::move(client));
}

void DBAuthHelperOSXfix::requestAccessToken(std::shared_ptr<DBRestClient> client) {
  const auto thread = KZVDropboxFileManager::dropboxThread();
  if (!thread) return client->loadAccessToken();
  auto request = [helper = shared_from_this(), client = std::move(client)] {
    // Another activation may have linked the account meanwhile; this client then has no code left.
    if (helper->restClient_.get() == client) client->loadAccessToken();
  };
  thread->perform(std::move(request), false);
}

// The browser's redirect counts as an activation; without it the person would have to press a key here to
// finish the sign-in.
void DBAuthHelperOSXfix::restClientReceivedAuthorization(DBRestClient& /*client*/) {
  DispatchQueue::main().async([] {
    NSNotification notification;
    notification.name = NSApplicationDidBecomeActiveNotification;
    NSNotificationCenter::defaultCenter().post(notification);
  });
}

void DBAuthHelperOSXfix::restClientLoadedAccessToken(DBRestClient& /*client*/, const std::string& userId) {
  loading = false;
  NSNotificationCenter::defaultCenter().removeObserver(this);
  linkedUserId_.set(userId);
  restClient_.set(nullptr);  // it lives until this callback returns; the next sign-in gets a new one
  postStateChangedNotification(nullptr);
}

// The observer stays, and the client keeps its code if still usable: the next activation tries again.
void DBAuthHelperOSXfix::loadAccessTokenFailedWithError(DBRestClient& /*client*/, const NSErrorRef& error) {
  loading = false;
  postStateChangedNotification(error);
}

bool DBAuthHelperOSXfix::useAuthorizationCode(const std::string& code) {
  const auto client = restClient_.get();
  return client && client->useAuthorizationCode(code);
}

bool DBAuthHelperOSXfix::isSigningIn() const {
  const auto client = restClient_.get();
  return isLoading() || (client && client->requestTokenLoaded());
}

std::optional<std::string> DBAuthHelperOSXfix::takeLinkedUserId() {
  return linkedUserId_.update(
      [](std::optional<std::string>& userId) { return std::exchange(userId, std::nullopt); });
}
