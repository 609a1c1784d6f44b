#pragma once
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "core/ProgressCallback.h"
#include "filemanager/MetadataCache.h"
#include "foundation/NSDate.h"
#include "foundation/NSError.h"
#include "foundation/NSThread.h"
#include "sdk/DBRestClient.h"

/// One linked account's view of the service: blocking calls over the asynchronous DBRestClient, and the cache
/// of what they answered, kept fresh by the service's change feed.
///
/// Threads: call from any thread except dropboxThread(), where a call would wait for an answer only that
/// thread can deliver. Ordinary calls of one manager queue up on mainClient, delta runs on deltaClient; one
/// of each may be under way. Errors: a failed call returns null or false and stores the service's own
/// NSError. Null or false with no error means that the account has been unlinked; treat it as failure. No
/// call has a time limit of its own. Locks: synced(mainClient) or synced(deltaClient) first, then
/// synced(metaCache), then deltaStateMutex_. A thread that holds one of them never calls out to the host.
class KZVDropboxFileManager final : public NSObject,
                                    public DBRestClientDelegate,
                                    public std::enable_shared_from_this<KZVDropboxFileManager> {
 public:
  using MetadataRef = std::shared_ptr<const DBMetadata>;

  /// A manager for the account `userId` of the shared session. Sends nothing.
  static std::shared_ptr<KZVDropboxFileManager> initWithUserId(const std::string& userId);
  ~KZVDropboxFileManager() override;
  /// The thread on which every request is started and every callback arrives; empty before the plug-in's
  /// start-up.
  static std::shared_ptr<NSThread> dropboxThread();

  /// The record of `path`: from metaCache if present and complete, else fetched. A folder is complete only
  /// with its contents. A trailing ".." stands for the folder itself: "/a/b/.." is looked up as "/a/b".
  /// @param path   starts with "/"; letter case does not matter.
  /// @param error  may be null; written only when the service reports a failure.
  /// @return the record (it may be marked deleted), or null. Blocks.
  MetadataRef metadata(const std::string& path, NSErrorRef* error = nullptr);

  /// Brings metaCache up to date with the account's change feed, at most once in deltaUpdateInterval. The
  /// first run of a manager happens in the background; later ones block for their pages.
  void loadDelta(NSErrorRef* error = nullptr);
  /// Does nothing, on purpose: callers from before delta runs became cheap still ask for it. Runs start in
  /// loadDelta only.
  void deltaSmartUpdate() {}

  /// Name, address and space of the account, asked for anew at each call. Blocks.
  std::shared_ptr<DBAccountInfo> accountInfo(NSErrorRef* error = nullptr);

  const std::string userId;
  /// Carries ordinary requests; also the lock that serialises them.
  const std::shared_ptr<DBRestClient> mainClient;
  /// Carries delta runs; also the lock that serialises them.
  const std::shared_ptr<DBRestClient> deltaClient;
  /// Path -> record; use under synced(*metaCache).
  const std::shared_ptr<MetadataCache> metaCache;

  // DBRestClientDelegate, on dropboxThread().
  void loadedMetadata(DBRestClient& client, const MetadataRef& metadata) override;
  void metadataUnchangedAtPath(DBRestClient& client, const std::string& path) override;
  void loadMetadataFailedWithError(DBRestClient& client, const NSErrorRef& error) override;
  void loadedDeltaEntries(DBRestClient& client, const std::vector<DBDeltaEntry>& entries, bool reset,
                          const std::string& cursor, bool hasMore) override;
  void loadDeltaFailedWithError(DBRestClient& client, const NSErrorRef& error) override;
  void loadedAccountInfo(DBRestClient& client, const std::shared_ptr<DBAccountInfo>& info) override;
  void loadAccountInfoFailedWithError(DBRestClient& client, const NSErrorRef& error) override;

 private:
  using ClientRef = std::shared_ptr<DBRestClient>;
  /// Paths in key form.
  struct Changes {
    std::set<std::string> folders;
    std::set<std::string> files;
  };
  struct Private {};  // keeps the constructor to initWithUserId, while make_shared may call it

 public:
  KZVDropboxFileManager(Private, std::string accountId);

 private:
  // The three steps of every request, and the start between them.
  ClientRef prepare(ClientRef client);
  /// Runs `request` with the client on dropboxThread(); does not wait.
  static void start(const ClientRef& client, std::function<void(DBRestClient&)> request);
  static void finish(DBRestClient& client, id result, const NSErrorRef& error);
  id wait(DBRestClient& client, NSErrorRef* error);
  /// prepare, start and wait on mainClient, under its lock.
  id requestOnMainClient(std::function<void(DBRestClient&)> request, NSErrorRef* error);
  /// Tells the caller's progress callback; its false ends the request as stopped by the user.
  static void reportProgress(DBRestClient& client, double fraction);

  MetadataRef cachedRecord(const std::string& key) const;
  MetadataRef fetchRecord(const std::string& path, const std::string& key, NSErrorRef* error);
  void awaitFirstCursor();

  void runDelta(NSErrorRef* error);
  void runFirstDeltaInBackground();
  bool isDeltaRecent() const;
  std::optional<std::string> deltaCursor() const;
  void noteDeltaRunCompleted(const std::string& cursor);
  void applyReset(bool hadCursor, Changes& changes);
  void applyEntry(const DBDeltaEntry& entry, bool hadCursor, Changes& changes);
  void reportChanges(Changes changes);

  mutable std::mutex deltaStateMutex_;
  std::condition_variable firstRunEnded_;
  std::optional<std::string> lastDeltaCursor;  // guarded by deltaStateMutex_: of the last complete run
  std::optional<NSDate::Time>
      lastDeltaDate;                 // guarded by deltaStateMutex_: absent means run at the next chance
  bool isFirstRunUnderWay_ = false;  // guarded by deltaStateMutex_
};
