#pragma once
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "foundation/NSError.h"
#include "sdk/DBAccountInfo.h"
#include "sdk/DBDeltaEntry.h"
#include "sdk/DBMetadata.h"
#include "sdk/DBSharedLink.h"

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
  /// `changes`: there is something for loadDelta to load. `backoff`: how long the service wants to be left
  /// alone before the next waitForChanges.
  virtual void waitedForChanges(DBRestClient& /*client*/, bool /*changes*/,
                                std::chrono::seconds /*backoff*/) {}
  virtual void waitForChangesFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}

  virtual void loadedAccountInfo(DBRestClient& /*client*/, const std::shared_ptr<DBAccountInfo>& /*info*/) {}
  virtual void loadAccountInfoFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}

  /// A sign-in has begun: authorizeURL() is the page to show.
  virtual void restClientLoadedRequestToken(DBRestClient& /*client*/) {}
  virtual void loadRequestTokenFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}
  /// The browser has brought the user's answer, or the sign-in's time is over, so loadAccessToken will not be
  /// told to wait any more.
  virtual void restClientReceivedAuthorization(DBRestClient& /*client*/) {}
  /// An access token was exchanged or adopted; the account is among the session's userIds.
  virtual void restClientLoadedAccessToken(DBRestClient& /*client*/, const std::string& /*userId*/) {}
  virtual void loadAccessTokenFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}

  // Transfers. Fractions go from 0 to 1; progress comes before the end, never after it. A progress callback
  // may cancel the client's requests.
  /// `metadata` is the record of the version that came, which may be newer than the one known before; never
  /// null.
  virtual void loadedFile(DBRestClient& /*client*/, const std::string& /*localPath*/,
                          const MetadataRef& /*metadata*/) {}
  virtual void loadFileFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}
  virtual void loadProgress(DBRestClient& /*client*/, double /*fraction*/, const std::string& /*localPath*/) {
  }
  /// `metadata` is null where the service sent none.
  virtual void loadedThumbnail(DBRestClient& /*client*/, const std::string& /*localPath*/,
                               const MetadataRef& /*metadata*/) {}
  virtual void loadThumbnailFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}
  /// The record's path differs from the one asked for when the file was stored beside another version.
  virtual void uploadedFile(DBRestClient& /*client*/, const std::string& /*destinationPath*/,
                            const std::string& /*localPath*/, const MetadataRef& /*metadata*/) {}
  virtual void uploadFileFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}
  virtual void uploadProgress(DBRestClient& /*client*/, double /*fraction*/,
                              const std::string& /*destinationPath*/, const std::string& /*localPath*/) {}
  /// `newOffset`: bytes of the file that the service holds now; the next chunk begins there.
  virtual void uploadedFileChunk(DBRestClient& /*client*/, const std::string& /*uploadId*/,
                                 std::uint64_t /*newOffset*/, const std::string& /*localPath*/,
                                 NSDate::Time /*expires*/) {}
  /// The error's user info carries DBErrorUploadIdKey and DBErrorOffsetKey whenever the upload can go on from
  /// there.
  virtual void uploadFileChunkFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}
  /// `fraction` is of the chunk that begins at `offset` bytes.
  virtual void uploadFileChunkProgress(DBRestClient& /*client*/, double /*fraction*/,
                                       const std::string& /*uploadId*/, std::uint64_t /*offset*/,
                                       const std::string& /*localPath*/) {}
  virtual void uploadedFileFromUploadId(DBRestClient& /*client*/, const std::string& /*destinationPath*/,
                                        const std::string& /*uploadId*/, const MetadataRef& /*metadata*/) {}
  virtual void uploadFromUploadIdFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}

  // Tree changes and links.
  virtual void createdFolder(DBRestClient& /*client*/, const MetadataRef& /*metadata*/) {}
  virtual void createFolderFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}
  virtual void deletedPath(DBRestClient& /*client*/, const std::string& /*path*/) {}
  virtual void deletePathFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}
  /// `metadata` is the record at the new place.
  virtual void movedPath(DBRestClient& /*client*/, const std::string& /*fromPath*/,
                         const MetadataRef& /*metadata*/) {}
  virtual void movePathFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}
  virtual void loadedSharableLink(DBRestClient& /*client*/, const std::shared_ptr<DBSharedLink>& /*link*/,
                                  const std::string& /*path*/) {}
  /// @param link  empty: the file has none.
  virtual void foundSharableLink(DBRestClient& /*client*/, const std::string& /*link*/,
                                 const std::string& /*path*/) {}
  virtual void loadSharableLinkFailedWithError(DBRestClient& /*client*/, const NSErrorRef& /*error*/) {}
};
