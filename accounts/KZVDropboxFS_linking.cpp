#include "accounts/DBAuthHelperOSXfix.h"
#include "core/DLog.h"
#include "core/KZVConstants.h"
#include "foundation/DispatchQueue.h"
#include "foundation/Fatal.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "plugin/KZVDropboxFS.h"
#include "plugin/KZVDropboxFSGlobals.h"
#include "support/KZVDropboxFSSupport.h"

namespace {

/// The user info for the host's notification of a step. Built at once: by the time of the notification the
/// sign-in may be a step further.
std::shared_ptr<NSDictionary> linkingStep(const NSNotification& step) {
  const auto helper = DBAuthHelperOSXfix::sharedHelper();
  NSDictionary::Entries entries{
      {str(std::string(KZVLinkingShouldContinueKey)), NSNumber::withBool(helper->isSigningIn())}};
  if (const id error = step.userInfo ? step.userInfo->objectForKey("error") : nullptr)
    entries.emplace_back(str(std::string(KZVLinkingErrorKey)), error);
  if (const auto userId = helper->takeLinkedUserId())
    entries.emplace_back(str(std::string(KZVLinkingAccountKey)), str(*userId));
  return std::make_shared<NSDictionary>(std::move(entries));
}

void notifyHost(std::shared_ptr<NSDictionary> step) {
  DispatchQueue::main().async([userInfo = std::move(step)] {
    NSNotificationCenter::defaultCenter().post(
        {std::string(KZVAccountLinkingNotification), nullptr, userInfo});
  });
}

void storeSettings() {
  required(KZVDropboxUserDefaults(), "the settings suite opens")->synchronize();  // logs its failure
}

}  // namespace

std::optional<std::string> KZVDropboxFS::dropboxDesktopPath() { return KZVDropboxFSDesktopPath().get(); }

/// Assumes that the first account on a machine with a desktop client is the client's; the person can change
/// that later. True when an account was recorded; the caller must store the settings.
bool KZVDropboxFS::recordDesktopUserIfFirst() {
  const auto session = required(DBSession::sharedSession(), "a shared session is installed");
  if (!session->isLinked() || !KZVDropboxFSDesktopPath().get() || KZVDropboxFSDesktopUserID().get())
    return false;
  const auto userIds = session->userIds();
  if (userIds.empty()) return false;
  KZVDropboxFSDesktopUserID().set(userIds.front());
  required(KZVDropboxUserDefaults(), "the settings suite opens")
      ->setValue(str(userIds.front()), KZVDropboxFSDesktopUserIDKey);
  return true;
}

void KZVDropboxFS::linkDropbox(DBRestClient::SignInCode code) {
  const auto thread = required(KZVDropboxFileManager::dropboxThread(), "the service thread runs");
  const auto helper = DBAuthHelperOSXfix::sharedHelper();
  KZVDropboxFSSupport::performBlockInBackground(
      [code, helper, before = helper->cancelCount()] {
        if (helper->cancelCount() == before) helper->authenticate(code);
      },
      *thread);
}

void KZVDropboxFS::accountLinkedWithToken() {
  if (recordDesktopUserIfFirst()) storeSettings();
  updateList();
}

void KZVDropboxFS::authHelperStateChangedNotification(const NSNotification& notification) {
  DLog("authHelperStateChangedNotification: " + notification.description(),
       "authHelperStateChangedNotification");
  const bool hasRecorded = recordDesktopUserIfFirst();
  updateList();
  auto step = linkingStep(notification);
  if (!hasRecorded) return notifyHost(std::move(step));
  // The settings may be locked by another process, and this may be the service thread. The host is notified
  // afterwards, since it may then end the program.
  DispatchQueue::global().async([step = std::move(step)] {
    storeSettings();
    notifyHost(step);
  });
}
