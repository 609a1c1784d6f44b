#include "accounts/DBAuthHelperOSXfix.h"
#include "accounts/TokenLinking.h"
#include "plugin/KZVDropboxFS.h"
#include "plugin/KZVDropboxFSClass.h"

std::optional<std::string> KZVDropboxFSClass::linkAccountWithToken(const std::string& token,
                                                                   NSErrorRef* error) {
  auto userId = linkWithToken(token, error);
  if (!userId) return std::nullopt;
  KZVDropboxFS::accountLinkedWithToken();
  return userId;
}

bool KZVDropboxFSClass::linkAccount(LinkingAnswer answer) {
  KZVDropboxFS::linkDropbox(answer == LinkingAnswer::typedIn ? DBRestClient::SignInCode::typedIn
                                                             : DBRestClient::SignInCode::byRedirect);
  return true;
}

void KZVDropboxFSClass::cancelLinking() { DBAuthHelperOSXfix::sharedHelper()->cancel(); }

bool KZVDropboxFSClass::useAuthorizationCode(const std::string& code) {
  return DBAuthHelperOSXfix::sharedHelper()->useAuthorizationCode(code);
}
