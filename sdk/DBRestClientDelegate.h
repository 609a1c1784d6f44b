#pragma once
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "foundation/NSError.h"
#include "foundation/NSString.h"
#include "sdk/DBAccountInfo.h"
#include "sdk/DBDeltaEntry.h"
#include "sdk/DBMetadata.h"
#include "sdk/DBSharedLink.h"
#include "sdk/DBTree.h"

class DBRestClient;

/// Outcomes of a client's requests. Every callback runs on the run loop of the thread that started the
/// request. A request ends with exactly one success or failure callback, unless it was cancelled: then none
/// comes.
///
/// A delegate that treats all requests alike overrides requestSucceeded and requestFailedWithError, to which
/// the requests' own callbacks forward; any other overrides the callbacks of the requests that it makes.
class DBRestClientDelegate {
 public:
  using MetadataRef = std::shared_ptr<const DBMetadata>;
  virtual ~DBRestClientDelegate() = default;

  /// @param result  the record, path, account or link that the request's own callback describes; never null.
  virtual void requestSucceeded(DBRestClient& /*client*/, const id& /*result*/) {}
  virtual void requestFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}

  virtual void loadedMetadata(DBRestClient& client, const MetadataRef& metadata) {
    requestSucceeded(client, object(metadata));
  }
  virtual void metadataUnchangedAtPath(DBRestClient& /*client*/, const std::string& /*path*/) {}
  virtual void loadMetadataFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }

  virtual void loadedTree(DBRestClient& client, const std::shared_ptr<DBTree>& tree) {
    requestSucceeded(client, tree);
  }
  virtual void loadTreeFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }

  /// One page of changes, in the order in which they are to be applied. `hasMore`: ask again with `cursor` at
  /// once. `reset`: what was known before no longer holds.
  virtual void loadedDeltaEntries(DBRestClient& /*client*/, const std::vector<DBDeltaEntry>& /*entries*/,
                                  bool /*reset*/, const std::string& /*cursor*/, bool /*hasMore*/) {}
  virtual void loadDeltaFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }
  /// `changes`: loadDelta has something to load. `backoff`: the least pause before the next waitForChanges.
  virtual void waitedForChanges(DBRestClient& /*client*/, bool /*changes*/,
                                std::chrono::seconds /*backoff*/) {}
  virtual void waitForChangesFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }

  virtual void loadedAccountInfo(DBRestClient& client, const std::shared_ptr<DBAccountInfo>& info) {
    requestSucceeded(client, info);
  }
  virtual void loadAccountInfoFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }

  /// A sign-in has begun: authorizeURL() is the page to show.
  virtual void restClientLoadedRequestToken(DBRestClient& /*client*/) {}
  virtual void loadRequestTokenFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }
  /// The user's answer has arrived from the browser, or the sign-in has expired: loadAccessToken no longer
  /// fails with DBErrorAuthorizationPending.
  virtual void restClientReceivedAuthorization(DBRestClient& /*client*/) {}
  /// An access token was exchanged or adopted; the account is among the session's userIds.
  virtual void restClientLoadedAccessToken(DBRestClient& /*client*/, const std::string& /*userId*/) {}
  virtual void loadAccessTokenFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }

  // Transfers. Fractions go from 0 to 1; no progress is reported after the end. A progress callback may
  // cancel the client's requests.
  /// `metadata`, never null, is the record of the downloaded version, which may be newer than the known one.
  virtual void loadedFile(DBRestClient& client, const std::string& localPath,
                          const MetadataRef& /*metadata*/) {
    requestSucceeded(client, str(localPath));
  }
  virtual void loadFileFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }
  virtual void loadProgress(DBRestClient& /*client*/, double /*fraction*/, const std::string& /*localPath*/) {
  }
  /// `metadata` is null where the service sent none.
  virtual void loadedThumbnail(DBRestClient& client, const std::string& localPath,
                               const MetadataRef& /*metadata*/) {
    requestSucceeded(client, str(localPath));
  }
  virtual void loadThumbnailFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }
  /// The record's path differs from the requested one when the file was stored beside another version.
  virtual void uploadedFile(DBRestClient& client, const std::string& /*destinationPath*/,
                            const std::string& /*localPath*/, const MetadataRef& metadata) {
    requestSucceeded(client, object(metadata));
  }
  virtual void uploadFileFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }
  virtual void uploadProgress(DBRestClient& /*client*/, double /*fraction*/,
                              const std::string& /*destinationPath*/, const std::string& /*localPath*/) {}
  /// `newOffset`: bytes of the file that the service holds now; the next chunk begins there.
  virtual void uploadedFileChunk(DBRestClient& /*client*/, const std::string& /*uploadId*/,
                                 std::uint64_t /*newOffset*/, const std::string& /*localPath*/,
                                 NSDate::Time /*expires*/) {}
  /// The error has DBErrorUploadIdKey and DBErrorOffsetKey when the upload can be resumed there.
  virtual void uploadFileChunkFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }
  /// `fraction` is of the chunk that begins at `offset` bytes.
  virtual void uploadFileChunkProgress(DBRestClient& /*client*/, double /*fraction*/,
                                       const std::string& /*uploadId*/, std::uint64_t /*offset*/,
                                       const std::string& /*localPath*/) {}
  virtual void uploadedFileFromUploadId(DBRestClient& client, const std::string& /*destinationPath*/,
                                        const std::string& /*uploadId*/, const MetadataRef& metadata) {
    requestSucceeded(client, object(metadata));
  }
  virtual void uploadFromUploadIdFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }

  // Tree changes and links.
  virtual void createdFolder(DBRestClient& client, const MetadataRef& metadata) {
    requestSucceeded(client, object(metadata));
  }
  virtual void createFolderFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }
  virtual void deletedPath(DBRestClient& client, const std::string& path) {
    requestSucceeded(client, str(path));
  }
  virtual void deletePathFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }
  /// `metadata` is the record at the new place.
  virtual void movedPath(DBRestClient& client, const std::string& /*fromPath*/, const MetadataRef& metadata) {
    requestSucceeded(client, object(metadata));
  }
  virtual void movePathFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }
  virtual void loadedSharableLink(DBRestClient& client, const std::shared_ptr<DBSharedLink>& link,
                                  const std::string& /*path*/) {
    requestSucceeded(client, link);
  }
  virtual void loadSharableLinkFailedWithError(DBRestClient& client, const NSErrorRef& error) {
    requestFailedWithError(client, error);
  }

 private:
  static id object(const MetadataRef& metadata) { return std::const_pointer_cast<DBMetadata>(metadata); }
};
