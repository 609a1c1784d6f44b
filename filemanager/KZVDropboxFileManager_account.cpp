#include "filemanager/KZVDropboxFileManager.h"

std::shared_ptr<DBAccountInfo> KZVDropboxFileManager::accountInfo(NSErrorRef* error) {
  return as<DBAccountInfo>(
      requestOnMainClient([](DBRestClient& client) { client.loadAccountInfo(); }, error));
}
