#include "plugin/KZVDropboxFSClass.h"

#include "foundation/Fatal.h"
#include "plugin/KZVDropboxFS.h"
#include "sdk/DBServiceHosts.h"

KZVDropboxFSClass& KZVDropboxFSClass::shared() {
  static auto& object = *new KZVDropboxFSClass;
  return object;
}

NSErrorRef KZVDropboxFSClass::settingsProblem() const { return DBServiceHosts::fromEnvironment().refusal; }

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

NSErrorRef KZVDropboxFSClass::accountsError() const {
  return required(DBSession::sharedSession(), "a shared session is installed")->storeError();
}

std::optional<std::string> KZVDropboxFSClass::desktopFolder() const {
  return KZVDropboxFS::dropboxDesktopPath();
}

std::optional<std::string> KZVDropboxFSClass::desktopAccountId() const {
  return KZVDropboxFS::dropboxDesktopUserId();
}

bool KZVDropboxFSClass::setDesktopAccountId(const std::string& accountId, NSErrorRef* error) {
  return KZVDropboxFS::setDropboxDesktopUserId(accountId, error);
}

std::optional<AccountDetails> KZVDropboxFSClass::accountDetails(const std::string& accountId,
                                                                NSErrorRef* error) {
  return KZVDropboxFS::accountDetails(accountId, error);
}

std::optional<PublicLink> KZVDropboxFSClass::publicLink(const std::string& path, NSErrorRef* error) {
  return KZVDropboxFS::publicLink(path, error);
}

std::optional<std::string> KZVDropboxFSClass::existingLink(const std::string& path, NSErrorRef* error) {
  return KZVDropboxFS::existingLink(path, error);
}

bool KZVDropboxFSClass::unlinkAccount(const std::string& accountId, NSErrorRef* error) {
  const bool isRevoked = KZVDropboxFS::unlinkAndRevokeDBUser(accountId, error);
  KZVDropboxFS::updateList();
  return isRevoked;
}

void KZVDropboxFSClass::finishBackgroundWork(double seconds) {
  required(DBSession::sharedSession(), "a shared session is installed")->waitForBackgroundWork(seconds);
}

void KZVDropboxFSClass::sessionDidReceiveAuthorizationFailure(DBSession& session, const std::string& userId) {
  KZVDropboxFS::sessionDidReceiveAuthorizationFailure(session, userId);
}
