#pragma once
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/ProgressCallback.h"
#include "core/WriteBase.h"
#include "filemanager/MetadataCache.h"
#include "foundation/NSDate.h"
#include "foundation/NSError.h"
#include "foundation/NSThread.h"
#include "foundation/NSURL.h"
#include "sdk/DBRestClient.h"

/// One linked account's view of the service: blocking calls over the asynchronous DBRestClient, and a cache
/// of records that the service's change feed keeps up to date.
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
  /// The same at the beginning of a transfer: `progress`, unless empty, is called every stopInterval with
  /// nothing done yet, and returning false stops as in loadFile. The request does not queue on mainClient
  /// then.
  MetadataRef metadata(const std::string& path, const ProgressCallback& progress, NSErrorRef* error);

  /// Caches the listing of the folder at `path` and those of all folders below it, fetched in one stream
  /// instead of one by one, so that a walk finds them there. What cannot be fetched this way, or changes
  /// meanwhile, is fetched when it is asked for. Waits briefly for the first cursor, without which nothing is
  /// kept. Blocks.
  /// @param maxEntries  a larger tree is not fetched.
  /// @return false when the tree is larger.
  bool loadTree(const std::string& path, std::size_t maxEntries);

  // Delta runs bring metaCache up to date with the account's change feed. One is under way at a time; until
  // the first has brought a cursor, nothing is kept in metaCache. After a failure the next one waits: some
  // seconds, for as long as the service asks, at most about deltaUpdateInterval. Failures in a row are
  // logged.

  /// To be called before reading metaCache: a run on this thread if the last one is older than
  /// deltaUpdateInterval or this process has changed the tree since. Blocks for its pages, but never for
  /// another thread's run. Without a cursor the run happens in the background.
  void loadDelta(NSErrorRef* error = nullptr);
  /// Blocks until a run that began after this call has ended, also the first one, however recent the last one
  /// was.
  void loadDeltaNow(NSErrorRef* error = nullptr);
  /// The timer's poll: a run in the background, however recent the last one was, unless one is under way.
  /// Returns at once.
  void pollOnTimer();
  /// Requests the first cursor in the background, unless there is one: records fetched before it arrives are
  /// not cached and would be fetched again. Returns at once.
  void fetchFirstCursor();
  /// A run in the background that begins after this call, however recent the last one was. Returns at once.
  void pollNow();

  // While the account is watched, a request waits at the service for the next change and then calls pollNow
  // (see LongPoll); off with KZV_LONG_POLL=0. Any thread; both return at once.
  void setWatched(bool isWatched);
  /// The machine slept or changed networks: the waiting request is sent again.
  void noteConnectionInterrupted();
  /// Does nothing, on purpose: older callers still call it. Runs start in loadDelta only.
  void deltaSmartUpdate() {}

  /// Name, address and space of the account, asked for anew at each call. Blocks.
  std::shared_ptr<DBAccountInfo> accountInfo(NSErrorRef* error = nullptr,
                                             DBAccountParts parts = DBAccountParts::all);

  /// Downloads the newest version of a file to `local`, which is there only when it is whole; its date is the
  /// version's.
  /// @param progress  may be empty; runs on dropboxThread() with location 0..1000, length 1000, also every
  ///                  stopInterval while nothing moves; false stops. Not called any more after the return.
  /// @param received  may be null; set on success to the record of the downloaded version. If it is not that
  /// of
  ///                  `file`, the cache is updated.
  /// @return `local`, or null. A stop is CanceledByUserErrorDomain, code -1. Blocks.
  std::shared_ptr<NSURL> loadFile(const DBMetadata& file, std::shared_ptr<NSURL> local, LocalAccess access,
                                  ProgressCallback progress, NSErrorRef* error = nullptr,
                                  MetadataRef* received = nullptr);
  /// The same for the version `rev`, also after it was replaced, moved or deleted.
  std::shared_ptr<NSURL> loadRevision(const std::string& rev, std::shared_ptr<NSURL> local,
                                      LocalAccess access, ProgressCallback progress,
                                      NSErrorRef* error = nullptr, MetadataRef* received = nullptr);
  /// Stores a preview picture of at most 1024x768 pixels at `localPath`. Blocks.
  bool loadThumb(const std::string& path, const std::string& localPath, NSErrorRef* error = nullptr);
  /// Uploads a local file: one request below 104857600 bytes, else chunks of the client layer's own size. A
  /// version that somebody else stored meanwhile is not overwritten: the service then keeps this one beside
  /// it under another name. What is stored is one version of the local file: one that changes while it is
  /// sent is sent once more, and then is an error (DBErrorFileChanged).
  /// @param base      which version it may replace; the latest known one is asked for when the cache cannot
  ///                  tell.
  /// @param progress  as for loadFile, and on the calling thread before anything is sent. After a stop the
  ///                  service may still store what it had received whole.
  /// @return the record once the service has stored the file, whose path says where; or null. Blocks.
  MetadataRef uploadFile(const NSURL& local, const std::string& toPath, const WriteBase& base,
                         const ProgressCallback& progress, NSErrorRef* error = nullptr);
  /// The revision of the file at `path` as far as the cache knows. Does not block.
  std::optional<std::string> knownRevision(const std::string& path) const;
  // Tree changes; each blocks for its request, and the next listing shows it.
  bool deletePath(const std::string& path, NSErrorRef* error = nullptr);
  bool moveFrom(const std::string& path, const std::string& toPath, NSErrorRef* error = nullptr);
  bool createFolder(const std::string& path, NSErrorRef* error = nullptr);
  /// The full link, never a shortened one, made if there is none. Blocks.
  std::optional<std::string> publicLink(const std::string& path, NSErrorRef* error = nullptr);
  /// The same with the link's audience. Null on failure. Blocks.
  std::shared_ptr<DBSharedLink> sharedLink(const std::string& path, NSErrorRef* error = nullptr);
  /// The link that the file has already; makes none. Nothing, without an error, when it has none.
  std::optional<std::string> existingLink(const std::string& path, NSErrorRef* error = nullptr);

  const std::string userId;
  /// Carries ordinary requests; also the lock that serialises them.
  const std::shared_ptr<DBRestClient> mainClient;
  /// Carries delta runs; also the lock that serialises them.
  const std::shared_ptr<DBRestClient> deltaClient;
  /// Failed chunks that one upload survives.
  static constexpr int DROPBOX_MAX_UPLOAD_FAILURES = 5;
  /// Path -> record; use under synced(*metaCache).
  const std::shared_ptr<MetadataCache> metaCache;

  // DBRestClientDelegate, on dropboxThread(). Every request that needs no more ends in the first two.
  void requestSucceeded(DBRestClient& client, const id& result) override;
  void requestFailedWithError(DBRestClient& client, const NSErrorRef& error) override;
  void metadataUnchangedAtPath(DBRestClient& client, const std::string& path) override;
  void loadedDeltaEntries(DBRestClient& client, const std::vector<DBDeltaEntry>& entries, bool reset,
                          const std::string& cursor, bool hasMore) override;
  void loadDeltaFailedWithError(DBRestClient& client, const NSErrorRef& error) override;
  void loadedFile(DBRestClient& client, const std::string& localPath, const MetadataRef& metadata) override;
  void loadProgress(DBRestClient& client, double fraction, const std::string& localPath) override;
  void uploadProgress(DBRestClient& client, double fraction, const std::string& destinationPath,
                      const std::string& localPath) override;
  void uploadedFileChunk(DBRestClient& client, const std::string& uploadId, std::uint64_t newOffset,
                         const std::string& localPath, NSDate::Time expires) override;
  void uploadFileChunkFailedWithError(DBRestClient& client, const NSErrorRef& error) override;
  void uploadFileChunkProgress(DBRestClient& client, double fraction, const std::string& uploadId,
                               std::uint64_t offset, const std::string& localPath) override;

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
  /// The right to carry out a delta run, which ends when the last reference goes.
  struct DeltaRun;
  class ChangeWatcher;
  using DeltaRunRef = std::shared_ptr<DeltaRun>;
  enum class RunWhen {
    ifDue,   // by lastDeltaDate, and not too soon after a failure
    onTimer  // not too soon after a failure
  };

  // The three steps of every request, and the start between them.
  ClientRef prepare(ClientRef client);
  /// Runs `request` with the client on dropboxThread(); does not wait.
  void start(const ClientRef& client, std::function<void(DBRestClient&)> request);
  bool isLinked() const;
  static void finish(DBRestClient& client, id result, const NSErrorRef& error);
  id wait(DBRestClient& client, NSErrorRef* error);
  /// prepare, start and wait on mainClient, under its lock.
  id requestOnMainClient(std::function<void(DBRestClient&)> request, NSErrorRef* error);
  /// The same on a client of its own, beside whatever mainClient does. `progress` may be empty.
  id requestOnFreshClient(ProgressCallback progress, std::function<void(DBRestClient&)> request,
                          NSErrorRef* error);
  /// Calls the caller's progress callback (without a fraction: with the last one); if it returns false, the
  /// request ends as stopped by the user.
  static void reportProgress(DBRestClient& client, std::optional<double> fraction);
  /// Repeats the last report every stopInterval until the request's caller has returned, so that a transfer
  /// can be stopped while no bytes move.
  static void keepReporting(const std::weak_ptr<DBRestClient>& client);

  MetadataRef cachedRecord(const std::string& key) const;
  /// Gets a request carried out and waits for its result.
  using Carry = std::function<id(std::function<void(DBRestClient&)>)>;
  MetadataRef fetchRecord(const std::string& path, const std::string& key, const Carry& carry);
  /// The path of the folder that the item at `key` lies in, in the service's letter case, as far as it is
  /// known.
  std::optional<std::string> knownFolderPath(const std::string& key) const;

  enum class Streamed { whole, tooLarge, failed };
  /// Fetches a folder, whose record is known (null: the root), with everything below it into metaCache.
  Streamed streamTree(const MetadataRef& folder, std::size_t maxEntries);
  /// The same for several folders, some of them concurrently. False when one of them is larger.
  bool streamTrees(const std::vector<MetadataRef>& folders, std::size_t maxEntries);

  /// Waits, not long, for the first run to bring a cursor. False when there is none then.
  bool waitForFirstCursor();
  /// Null when it is not the time for a run, or one is under way.
  DeltaRunRef beginDeltaRun(RunWhen when);
  void beginDeltaRunLocked(DeltaRun& run);
  void endDeltaRun();
  void runDelta(const DeltaRun& run, NSErrorRef* error);
  void runDeltaInBackground(DeltaRunRef run);
  bool isDeltaRecentLocked() const;
  /// The cursor to ask from: the last one, or nothing to get a new one.
  std::optional<std::string> cursorToAskFrom() const;
  void noteDeltaRunFailed(const NSErrorRef& error);
  /// Runs `step` on dropboxThread() if this object still lives then; does not wait.
  void onServiceThread(std::function<void(KZVDropboxFileManager&)> step);
  /// A delta run has ended with this cursor, or failed. REQUIRES dropboxThread().
  void notifyLongPoll(const std::optional<std::string>& cursor);
  /// Seconds between two delta runs, as the plug-in's start-up settled them.
  static double deltaInterval();
  static bool isLongPollEnabled();
  /// Makes the next delta run due at once, also when one is under way: for calls that change the tree.
  void clearLastDeltaDate();
  std::optional<std::string> deltaCursor() const;
  void noteDeltaRunCompleted(const std::string& cursor);
  void applyReset(bool hadCursor, Changes& changes);
  void applyEntry(const DBDeltaEntry& entry, bool hadCursor, Changes& changes);
  void reportChanges(Changes changes);
  /// The same for a caller's own changes: local copies have been removed when the call returns.
  void reportOwnChanges(Changes changes);

  /// The cached record of `key`; a null record when its folder's cached listing does not contain it; nothing
  /// when neither is cached.
  std::optional<MetadataRef> knownRecord(const std::string& key) const;
  std::optional<std::string> parentRevision(const std::string& path, const WriteBase& base,
                                            const ProgressCallback& progress, bool& isKnown,
                                            NSErrorRef* error);
  MetadataRef download(const std::string& path, const NSURL& local, LocalAccess access,
                       ProgressCallback progress, NSErrorRef* error);
  void noteDownloaded(const DBMetadata& asked, const MetadataRef& received);
  MetadataRef sendFile(const class UploadSource& source, const std::string& toPath,
                       const std::optional<std::string>& parentRev, const ProgressCallback& progress,
                       NSErrorRef* error);
  std::optional<std::chrono::milliseconds> pauseBeforeResuming(DBRestClient& client, const NSErrorRef& error,
                                                               std::int64_t failures);
  void noteUploaded(const std::string& askedKey, const MetadataRef& record);
  /// Invalidates `path`, everything below it and the listing that contains it.
  void forget(const std::string& path);

  /// Failures after which a cursor is replaced, because it may be the cause.
  static constexpr int maxFailuresOfCursor = 3;

  mutable std::mutex deltaStateMutex_;
  std::condition_variable deltaRunEnded_;
  std::optional<std::string> lastDeltaCursor;  // guarded by deltaStateMutex_: of the last complete run
  std::optional<NSDate::Time>
      lastDeltaDate;                 // guarded by deltaStateMutex_: absent means run at the next chance
  bool isDateClearedInRun_ = false;  // guarded by deltaStateMutex_: since the present run began
  bool isDeltaRunning_ = false;      // guarded by deltaStateMutex_
  bool isPollWanted_ = false;        // guarded by deltaStateMutex_: after the run under way
  std::uint64_t deltaRuns_ = 0;      // guarded by deltaStateMutex_: begun so far
  int failuresInARow_ = 0;           // guarded by deltaStateMutex_: of delta runs
  int failuresOfCursor_ = 0;         // guarded by deltaStateMutex_: those that may be the cursor's fault
  // guarded by deltaStateMutex_
  std::chrono::steady_clock::time_point earliestNextRun_{}, nextFailureLine_{};

  // dropboxThread()'s own.
  std::shared_ptr<ChangeWatcher> changeWatcher_;  // null until the account is watched
  bool hasRunBroughtChanges_ = false;
};
