#include <algorithm>
#include <cstdlib>
#include <mutex>

#include <fmt/format.h>

#include "accounts/DBAuthHelperOSXfix.h"
#include "accounts/DesktopClient.h"
#include "core/DLog.h"
#include "foundation/DispatchQueue.h"
#include "foundation/Fatal.h"
#include "foundation/NSString.h"
#include "plugin/KZVDropboxFS.h"
#include "plugin/KZVDropboxFSClass.h"
#include "plugin/KZVDropboxFSGlobals.h"
#include "sdk/DBServiceHosts.h"
#include "support/KZVDropboxFSSupport.h"

namespace {

/// The id that an interrupted sign-in of early versions stored.
constexpr const char* placeholderUserId = "unknown";

void startServiceThread() {
  if (dropboxOperationsThread().get()) return;
  DispatchQueue::global().async([] { KZVDropboxFS::dbThreadRunLoop(); });
  while (!dropboxOperationsThread().get()) NSThread::sleepForTimeInterval(std::chrono::milliseconds(100));
}

/// The host name of the service's web site, or of its stand-in.
std::string serviceWebHost() {
  std::string host = DBServiceHosts::fromEnvironment().web;
  if (host.empty()) return "localhost";  // the address was refused: no other host may be looked up
  host.erase(0, host.find("://") + 3);
  if (host.starts_with('[')) return host.substr(0, host.find(']') + 1);
  host.resize(std::min(host.find(':'), host.size()));
  return host;
}

void startReachabilityMonitor() {
  const auto monitor = Reachability::reachabilityWithHostName(serviceWebHost());
  KZVDropboxReachability().set(monitor);
  NSNotificationCenter::defaultCenter().addObserver(&KZVDropboxFSClass::shared(),
                                                    kReachabilityChangedNotification, nullptr,
                                                    &KZVDropboxFS::reachabilityChanged);
  monitor->startNotifier();  // a failure shows in its status
}

void readDesktopUserId() {
  const id stored = required(KZVDropboxUserDefaults(), "the settings suite opens")
                        ->objectForKey(KZVDropboxFSDesktopUserIDKey);
  const std::string* text = textOf(stored);
  KZVDropboxFSDesktopUserID().set(text ? std::optional(*text) : std::nullopt);
}

void installSession(const std::shared_ptr<DBSession>& session) {
  DBSession::setSharedSession(session);
  KZVDropboxFSSupport::setDelegate(&KZVDropboxFSClass::shared(), *session);
  if (session->hasUserId(placeholderUserId)) session->unlinkUserId(placeholderUserId);
}

void announceLinkedUsers(const DBSession& session) {
  const auto userIds = session.userIds();
  if (userIds.empty()) return;
  for (const std::string& userId : userIds)
    DLog(fmt::format("linked dropbox user {}", userId), "initialize()");
  KZVDropboxFS::updateList();
}

void dropStaleDesktopUserId(const DBSession& session) {
  const auto desktopUser = KZVDropboxFSDesktopUserID().get();
  if (!desktopUser || session.hasUserId(*desktopUser)) return;
  if (session.storeError()) return;  // the account may be among those that could not be read
  KZVDropboxFSDesktopUserID().set(std::nullopt);
  KZVDropboxUserDefaults()->removeObjectForKey(KZVDropboxFSDesktopUserIDKey);
  KZVDropboxUserDefaults()->synchronize();
}

void startAccounts() {
  NSNotificationCenter::defaultCenter().addObserver(
      &KZVDropboxFSClass::shared(), DBAuthHelperOSXStateChangedNotification,
      DBAuthHelperOSXfix::sharedHelper().get(), &KZVDropboxFS::authHelperStateChangedNotification);
  const auto folder = desktopClientFolder();
  if (!folder) return;
  KZVDropboxFSDesktopPath().set(folder);
  DLog("dropbox path is " + *folder, "initialize()");
}

}  // namespace

void KZVDropboxFS::initialize() {
  static std::once_flag once;  // a host may load the bundle again
  std::call_once(once, startUp);
}

void KZVDropboxFS::startUp() {
  startServiceThread();
  const auto session =
      std::make_shared<DBSession>(KZVDropboxFSAppKey(), KZVDropboxFSAppSecret(), kDBRootDropbox);
  startReachabilityMonitor();
  readDesktopUserId();
  installSession(session);
  announceLinkedUsers(*session);
  dropStaleDesktopUserId(*session);
  startAccounts();
}

void KZVDropboxFS::dbThreadRunLoop() {
  setCurrentThreadName("kzv-service");
  const auto thread = NSThread::currentThread();
  dropboxOperationsThread().set(thread);
  thread->runLoop()->addTimer(std::make_shared<NSTimer>(std::chrono::duration<double>(deltaUpdateInterval()),
                                                        &KZVDropboxFS::dbTimerIntervalExpired, true));
  while (true) {
    const auto sixIntervals = std::chrono::duration_cast<NSRunLoop::Clock::duration>(
        std::chrono::duration<double>(6 * deltaUpdateInterval()));
    thread->runLoop()->runUntilDate(NSRunLoop::Clock::now() + sixIntervals);
  }
}

void KZVDropboxFS::reachabilityChanged(const NSNotification& /*notification*/) {
  updateList();
  noteConnectionInterrupted();
}

void KZVDropboxFS::updateList() {
  KZVDropboxQueue().async([] { refreshUserList(); });
}
