#include "filemanager/KZVDropboxFileManager.h"

std::shared_ptr<DBAccountInfo> KZVDropboxFileManager::accountInfo(NSErrorRef* error) {
  return as<DBAccountInfo>(
      requestOnMainClient([](DBRestClient& client) { client.loadAccountInfo(); }, error));
}

void KZVDropboxFileManager::loadedAccountInfo(DBRestClient& client,
                                              const std::shared_ptr<DBAccountInfo>& info) {
  finish(client, info, nullptr);
}

void KZVDropboxFileManager::loadAccountInfoFailedWithError(DBRestClient& client, const NSErrorRef& error) {
  finish(client, nullptr, error);
}
