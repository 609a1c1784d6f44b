#include "plugin/KZVDropboxFSClass.h"

#include "accounts/TokenLinking.h"
#include "foundation/Fatal.h"
#include "plugin/KZVDropboxFS.h"

KZVDropboxFSClass& KZVDropboxFSClass::shared() {
  static auto& object = *new KZVDropboxFSClass;
  return object;
}

void KZVDropboxFSClass::initialize() { KZVDropboxFS::initialize(); }

std::string KZVDropboxFSClass::fsDescription() const { return KZVDropboxFS::fsDescription(); }

std::shared_ptr<NSArray> KZVDropboxFSClass::availableRootItems() const {
  return KZVDropboxFS::availableRootItems();
}

std::shared_ptr<FSPlugin> KZVDropboxFSClass::makePlugin(const std::shared_ptr<FSItem>& item,
                                                        const id& options) {
  return KZVDropboxFS::makePlugin(item, options);
}

std::vector<std::string> KZVDropboxFSClass::linkedAccountIds() const {
  return required(DBSession::sharedSession(), "a shared session is installed")->userIds();
}

std::optional<std::string> KZVDropboxFSClass::linkAccountWithToken(const std::string& token,
                                                                   NSErrorRef* error) {
  auto userId = linkWithToken(token, error);
  if (userId) KZVDropboxFS::updateList();
  return userId;
}

void KZVDropboxFSClass::unlinkAccount(const std::string& accountId) {
  KZVDropboxFS::unlinkDBUser(accountId);
  KZVDropboxFS::updateList();
}

void KZVDropboxFSClass::finishBackgroundWork(double seconds) {
  required(DBSession::sharedSession(), "a shared session is installed")->waitForBackgroundWork(seconds);
}

void KZVDropboxFSClass::sessionDidReceiveAuthorizationFailure(DBSession& session, const std::string& userId) {
  KZVDropboxFS::sessionDidReceiveAuthorizationFailure(session, userId);
}
