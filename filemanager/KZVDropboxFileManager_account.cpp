#include "filemanager/KZVDropboxFileManager.h"

std::shared_ptr<DBAccountInfo> KZVDropboxFileManager::accountInfo(NSErrorRef* error, DBAccountParts parts) {
  return as<DBAccountInfo>(
      requestOnMainClient([parts](DBRestClient& client) { client.loadAccountInfo(parts); }, error));
}
