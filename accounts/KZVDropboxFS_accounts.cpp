#include <chrono>
#include <set>

#include <fmt/format.h>

#include "core/DLog.h"
#include "core/KZVConstants.h"
#include "core/synced.h"
#include "foundation/Fatal.h"
#include "foundation/NSString.h"
#include "plugin/KZVDropboxFS.h"
#include "plugin/KZVDropboxFSGlobals.h"

namespace {

DBSession& session() { return *required(DBSession::sharedSession(), "a shared session is installed"); }

NSUserDefaults& defaults() { return *required(KZVDropboxUserDefaults(), "the settings suite opens"); }

bool isReachable() {
  const auto monitor = required(KZVDropboxReachability().get(), "the reachability monitor exists");
  return monitor->currentReachabilityStatus() != NetworkStatus::notReachable;
}

std::string displayText(const DBAccountInfo& info) {
  if (!info.displayName().empty()) return info.displayName();
  return info.email().empty() ? "Unknown" : info.email();
}

/// Asks the service for the names of the linked accounts; omits those for which that fails.
UserList fetchUserList() {
  const auto linked = session().userIds();
  const std::set<std::string> userIds(linked.begin(), linked.end());
  UserList users;
  for (const std::string& userId : userIds) {
    NSErrorRef error;
    const auto info =
        KZVDropboxFileManager::initWithUserId(userId)->accountInfo(&error, DBAccountParts::identity);
    if (info) {
      users.emplace(userId, displayText(*info));
    } else {
      DLog(fmt::format("no account information for {}: {}", userId,
                       error ? error->description() : "no longer linked"),
           "refreshUserList()");
    }
  }
  return users;
}

/// While the service cannot be reached, the accounts that are still linked keep their old texts.
void keepLinked(const UserList& old, UserList& users) {
  for (const auto& [userId, text] : old) {
    if (session().hasUserId(userId)) users.emplace(userId, text);
  }
}

void postRootItemsChanged() {
  DispatchQueue::main().async([] {
    NSNotification notification;
    notification.name = AttachedPluginsDidChangeNotification;
    NSNotificationCenter::defaultCenter().post(notification);
  });
}

}  // namespace

void KZVDropboxFS::refreshUserList() {
  session().readStoreAgainIfIncomplete();
  const bool reachable = isReachable();
  UserList users = reachable ? fetchUserList() : UserList();
  std::set<std::string> affected;  // ids that are new, and ids that are gone
  synced(KZVDropboxFSUserListLock(), [&] {
    const UserList old = KZVDropboxFSUserList().get();
    if (!reachable) keepLinked(old, users);
    for (const auto& [userId, text] : users) {
      if (!old.contains(userId)) affected.insert(userId);
    }
    for (const auto& [userId, text] : old) {
      if (!users.contains(userId)) affected.insert(userId);
    }
  });
  synced(KZVDropboxFSUserListLock(), [&] { KZVDropboxFSUserList().set(std::move(users)); });
  for (const std::string& userId : affected) _changed_folder("/", userId);  // their open panels redraw
  postRootItemsChanged();
}

std::optional<std::string> KZVDropboxFS::dropboxDesktopUserId() { return KZVDropboxFSDesktopUserID().get(); }

bool KZVDropboxFS::setDropboxDesktopUserId(const std::string& userId, NSErrorRef* error) {
  if (!session().hasUserId(userId)) return true;
  KZVDropboxFSDesktopUserID().set(userId);
  defaults().setValue(str(userId), KZVDropboxFSDesktopUserIDKey);
  return defaults().synchronize(error);
}

void KZVDropboxFS::forgetDesktopUserId(const std::string& userId) {
  if (KZVDropboxFSDesktopUserID().get() != userId) return;
  KZVDropboxFSDesktopUserID().set(std::nullopt);
  defaults().removeObjectForKey(KZVDropboxFSDesktopUserIDKey);
  defaults().synchronize();
}

// On KZVDropboxQueue: settings and token store may be locked by another process, or a keyring may hang, and
// the service thread, which calls this, must not block.
//
// The desktop account is removed before the account is unlinked here, and after it in unlinkDBUser, on
// purpose: a failure must not leave an unusable desktop account, while a user who ejects may change their
// mind until the unlinking.
void KZVDropboxFS::sessionDidReceiveAuthorizationFailure(DBSession& /*session*/, const std::string& userId) {
  DLog(fmt::format("sessionDidReceiveAuthorizationFailure: {}", userId),
       "sessionDidReceiveAuthorizationFailure(_:userId:)");
  KZVDropboxQueue().async([userId] {
    if (session().isAuthorizationLost(
            userId)) {  // and was not linked again meanwhile, perhaps by another process
      forgetDesktopUserId(userId);
      session().unlinkUserId(userId);
    }
    updateList();
  });
}

void KZVDropboxFS::unlinkDBUser(const std::string& userId) {
  session().unlinkUserId(userId);
  forgetDesktopUserId(userId);
}

bool KZVDropboxFS::unlinkAndRevokeDBUser(const std::string& userId, NSErrorRef* error) {
  constexpr std::chrono::seconds timeout{20};  // a person is waiting
  const bool isRevoked = session().unlinkAndRevoke(userId, timeout, error);
  forgetDesktopUserId(userId);
  return isRevoked;
}

void KZVDropboxFS::eject() {
  unlinkDBUser(requiredUserId());
  updateList();
}
