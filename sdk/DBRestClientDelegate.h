#pragma once
#include <memory>
#include <string>
#include <vector>

#include "foundation/NSError.h"
#include "sdk/DBAccountInfo.h"
#include "sdk/DBDeltaEntry.h"
#include "sdk/DBMetadata.h"

class DBRestClient;

/// Outcomes of a client's requests. Every callback runs on the run loop of the thread that started the
/// request. A request ends with exactly one success or failure callback, unless it was cancelled: then none
/// comes any more. The defaults do nothing, so that a delegate implements what it asks for.
class DBRestClientDelegate {
 public:
  using MetadataRef = std::shared_ptr<const DBMetadata>;
  virtual ~DBRestClientDelegate() = default;

  virtual void loadedMetadata(DBRestClient& /*client*/, const MetadataRef& /*metadata*/) {}
  virtual void metadataUnchangedAtPath(DBRestClient& /*client*/, const std::string& /*path*/) {}
  virtual void loadMetadataFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}

  /// One page of changes, in the order in which they are to be applied. `hasMore`: ask again with `cursor` at
  /// once. `reset`: what was known before no longer holds.
  virtual void loadedDeltaEntries(DBRestClient& /*client*/, const std::vector<DBDeltaEntry>& /*entries*/,
                                  bool /*reset*/, const std::string& /*cursor*/, bool /*hasMore*/) {}
  virtual void loadDeltaFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}

  virtual void loadedAccountInfo(DBRestClient& /*client*/, const std::shared_ptr<DBAccountInfo>& /*info*/) {}
  virtual void loadAccountInfoFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}

  /// An access token was exchanged or adopted; the account is among the session's userIds.
  virtual void restClientLoadedAccessToken(DBRestClient& /*client*/, const std::string& /*userId*/) {}
  virtual void loadAccessTokenFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}
};
