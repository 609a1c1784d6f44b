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

/// The first account on a machine with a desktop client is taken to be the client's own; a person can say
/// otherwise later.
void recordDesktopUserIfFirst() {
  const auto session = required(DBSession::sharedSession(), "a shared session is installed");
  if (!session->isLinked() || !KZVDropboxFSDesktopPath().get() || KZVDropboxFSDesktopUserID().get()) return;
  const auto userIds = session->userIds();
  if (userIds.empty()) return;
  KZVDropboxFSDesktopUserID().set(userIds.front());
  const auto defaults = required(KZVDropboxUserDefaults(), "the settings suite opens");
  defaults->setValue(str(userIds.front()), KZVDropboxFSDesktopUserIDKey);
  defaults->synchronize();
}

/// Passes the step on to the host, which knows neither the helper nor its notification. What the host is told
/// is put together here and now: by the time it hears, the sign-in may be a step further.
void announceLinkingStep(const NSNotification& step) {
  const auto helper = DBAuthHelperOSXfix::sharedHelper();
  NSDictionary::Entries entries{
      {str(std::string(KZVLinkingGoesOnKey)), NSNumber::withBool(helper->isSigningIn())}};
  if (const id error = step.userInfo ? step.userInfo->objectForKey("error") : nullptr)
    entries.emplace_back(str(std::string(KZVLinkingErrorKey)), error);
  if (const auto userId = helper->takeLinkedUserId())
    entries.emplace_back(str(std::string(KZVLinkingAccountKey)), str(*userId));
  DispatchQueue::main().async([userInfo = std::make_shared<NSDictionary>(std::move(entries))] {
    NSNotificationCenter::defaultCenter().post(
        {std::string(KZVAccountLinkingNotification), nullptr, userInfo});
  });
}

}  // namespace

std::optional<std::string> KZVDropboxFS::dropboxDesktopPath() { return KZVDropboxFSDesktopPath().get(); }

void KZVDropboxFS::linkDropbox(DBRestClient::SignInCode code) {
  const auto thread = required(KZVDropboxFileManager::dropboxThread(), "the service thread runs");
  KZVDropboxFSSupport::performBlockInBackground(
      [code] { DBAuthHelperOSXfix::sharedHelper()->authenticate(code); }, *thread);
}

void KZVDropboxFS::authHelperStateChangedNotification(const NSNotification& notification) {
  DLog("authHelperStateChangedNotification: " + notification.description(),
       "authHelperStateChangedNotification");
  recordDesktopUserIfFirst();
  updateList();
  announceLinkingStep(notification);
}
