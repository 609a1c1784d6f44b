#pragma once
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/FSPlugin.h"
#include "core/KZVSmartCache.h"
#include "filemanager/KZVDropboxFileManager.h"
#include "foundation/Guarded.h"
#include "foundation/NSNotificationCenter.h"
#include "foundation/NSRunLoop.h"
#include "plugin/KeyedGate.h"
#include "plugin/ThumbnailCache.h"
#include "sdk/DBSession.h"

/// The plug-in. Its static members are shared by all accounts: one session, the service thread, the list of
/// accounts. An instance is one account's volume, identified by the account id.
///
/// Threads: static members and instances may be used from any thread except dropboxOperationsThread;
/// operations of an instance block until answered from a cache or by the service.
class KZVDropboxFS final : public FSPlugin {
 public:
  // --- Start-up and service thread (plugin/KZVDropboxFS_startup.cpp)

  /// Sets up everything that instances need; must be called first. Further calls do nothing. Blocks until the
  /// service thread runs.
  static void initialize();
  /// The service thread's body; never returns.
  static void dbThreadRunLoop();
  static void reachabilityChanged(const NSNotification& notification);
  /// Requests a refresh of the account list; returns at once.
  static void updateList();

  // --- Linking accounts (accounts/KZVDropboxFS_linking.cpp)

  /// Starts a sign-in in the browser; returns at once. Each step calls authHelperStateChangedNotification,
  /// which notifies the host (KZVAccountLinkingNotification).
  static void linkDropbox(DBRestClient::SignInCode code = DBRestClient::SignInCode::byRedirect);
  static void authHelperStateChangedNotification(const NSNotification& notification);
  /// Called after an account was linked with a token instead of a sign-in: records the desktop account and
  /// refreshes the list. Blocks for the disk.
  static void accountLinkedWithToken();
  /// The desktop client's local folder, read during start-up; nothing when there is none.
  static std::optional<std::string> dropboxDesktopPath();

  // --- Accounts (accounts/KZVDropboxFS_accounts.cpp)

  static std::optional<std::string> dropboxDesktopUserId();
  /// Records which linked account is the desktop client's; an id that is not linked is ignored.
  /// @return false, with the error, when the record could not be stored.
  static bool setDropboxDesktopUserId(const std::string& userId, NSErrorRef* error = nullptr);
  /// Unlinks an account and revokes its authorization in the background. The list changes with the next
  /// refresh.
  static void unlinkDBUser(const std::string& userId);
  /// The same, but waits up to 20 s for the revocation; false with an error that says what is left to be done
  /// by hand.
  static bool unlinkAndRevokeDBUser(const std::string& userId, NSErrorRef* error);
  static void sessionDidReceiveAuthorizationFailure(DBSession& session, const std::string& userId);

  // --- Root items and instances (plugin/KZVDropboxFS.cpp)

  /// One dictionary (KZVConstants.h) for each account of the list, ordered by id.
  static std::shared_ptr<NSArray> availableRootItems();
  static std::string fsDescription();
  /// An instance for the account id `options`: the attached one if there is one; null if the account is not
  /// linked.
  static std::shared_ptr<FSPlugin> makePlugin(const std::shared_ptr<FSItem>& item, const id& options);

  KZVDropboxFS(const std::shared_ptr<FSItem>& item, const id& options);  // initWithItem; use makePlugin
  ~KZVDropboxFS() override;

  id options() const override;
  std::string label() const override;
  bool isFSAvailable() const override;
  std::shared_ptr<FSItem> parentItem() const override { return nullptr; }
  bool isEjectable() const override { return true; }
  /// Unlinks this instance's account.
  void eject() override;
  std::size_t hash() const override;
  bool isEqual(const NSObject& other) const override;
  std::shared_ptr<NSURL> tmpFolderUrl() const override { return tmpFolderUrl_.get(); }
  void setTmpFolderUrl(std::shared_ptr<NSURL> url) override { tmpFolderUrl_.set(std::move(url)); }

  // --- Names (fsops/KZVDropboxFS_names.cpp)

  std::optional<NameProblem> nameProblem(std::string_view name) const override;
  std::string nameKey(std::string_view name) const override;

  // --- Listing and attributes (fsops/KZVDropboxFS_listing.cpp)

  bool isSeekable() const override { return false; }
  bool isExecutable(const std::string& /*path*/) override { return false; }
  bool isExists(const std::string& path) override;
  bool isReadable(const std::string& path) override;
  bool isWritable(const std::string& path) override;
  std::shared_ptr<NSDictionary> attributesAtPath(const std::string& path, NSErrorRef* error) override;
  std::shared_ptr<FSItem> itemAtPath(const std::string& path, NSErrorRef* error) override;
  std::optional<FSItems> contentAtPath(const std::string& path, bool recursive, bool showHidden,
                                       NSErrorRef* error) override;

  // --- Transfer (fsops/KZVDropboxFS_transfer.cpp)

  std::shared_ptr<NSURL> requestFileUrl(const std::string& path, ProgressCallback progress,
                                        NSErrorRef* error) override;
  void releaseFileUrl(const NSURL& url) override;
  bool fetchFile(const FSItem& item, const NSURL& target, LocalAccess access, ProgressCallback progress,
                 NSErrorRef* error) override;
  bool writeFile(const NSURL& source, const std::string& path, ProgressCallback progress,
                 NSErrorRef* error) override;
  std::optional<StoredFile> storeFile(const NSURL& source, const std::string& path, const WriteBase& base,
                                      ProgressCallback progress, NSErrorRef* error) override;
  std::optional<std::string> revisionAtPath(const std::string& path) override;

  // --- Reading one version by ranges (fsops/KZVDropboxFS_reading.cpp)

  /// Downloads the whole version when it is opened.
  std::shared_ptr<FSReader> openReader(const std::string& path, const std::string& version,
                                       ProgressCallback progress, NSErrorRef* error) override;

  // --- Tree changes (fsops/KZVDropboxFS_tree.cpp)

  bool removeItemAtPath(const std::string& path, NSErrorRef* error) override;
  bool moveFromPath(const std::string& path, const std::string& to,
                    const std::shared_ptr<NSDictionary>& attributes, ProgressCallback progress,
                    NSErrorRef* error) override;
  bool createDirectoryAtPath(const std::string& path, const std::shared_ptr<NSDictionary>& attributes,
                             NSErrorRef* error) override;

  // --- Space, account summary, links (fsops/KZVDropboxFS_space.cpp, _links.cpp)

  std::shared_ptr<NSDictionary> fsAttributes(const std::string& path, NSErrorRef* error) override;
  std::optional<VolumeSpace> space(NSErrorRef* error) override;
  /// Texts about a linked account: "id", "email" and "name" if it has them, "free" and "total". Null on
  /// failure.
  static std::shared_ptr<NSDictionary> dropboxInfoFor(const std::string& userId);
  /// The same as values. Nothing on failure, without an error if the account is not linked.
  static std::optional<AccountDetails> accountDetails(const std::string& userId, NSErrorRef* error);
  /// The public link to an item of the desktop client's account, created if needed; nothing, without an
  /// error, when there is no such account.
  static std::optional<std::string> dropboxPublic(const std::string& path, NSErrorRef* error);
  /// The same link with its audience.
  static std::optional<PublicLink> publicLink(const std::string& path, NSErrorRef* error);
  /// The same link if it exists already; creates none.
  static std::optional<std::string> existingLink(const std::string& path, NSErrorRef* error);

  // --- Icons and previews (fsops/KZVDropboxFS_pictures.cpp)

  std::shared_ptr<NSImage> icon(const std::string& path, NSErrorRef* error) override;
  std::shared_ptr<NSImage> preview(const std::string& path, NSErrorRef* error) override;

  // --- Change watching (fsops/KZVDropboxFS_watching.cpp)

  void startWatchFolder(const std::shared_ptr<FSItem>& item) override;
  void stopWatchFolder(const std::shared_ptr<FSItem>& item) override;
  FSItems watchedFolders() const override { return _watchedFolders.get(); }
  void pollForChanges() override;
  void prepareForManyLookUps() override;
  bool prepareToListTree(const std::string& path, std::size_t maxItems) override;
  /// The service thread's timer: starts a poll of the change feed for every attached instance. Does not
  /// block.
  static void dbTimerIntervalExpired(NSTimer& timer);
  /// Called after the machine slept or changed its network: restarts the long polls.
  static void noteConnectionInterrupted();
  /// Drops the local copies of a changed file in every instance of the account. `path` in lower case.
  static void _changed_file(const std::string& path, const std::string& userId);
  /// Notifies the account's watchers at and below `path` (in lower case), on the main queue.
  static void _changed_folder(const std::string& path, const std::string& userId);

  /// The account id; set in every instance made by makePlugin.
  const std::optional<std::string>& userId() const noexcept { return userId_; }
  /// Local copies of remote files by lower-cased path.
  KZVSmartCache& cache() noexcept { return *cache_; }

 private:
  /// The attached instances of one account, in the host's order.
  static std::vector<std::shared_ptr<KZVDropboxFS>> attachedInstances(const std::string& userId);
  static void startUp();
  static void refreshUserList();
  static bool recordDesktopUserIfFirst();
  static void forgetDesktopUserId(const std::string& userId);

  bool isWatching(const FSItem& item);
  const std::string& requiredUserId() const;
  KZVDropboxFileManager& requiredManager() const;

  bool appendContent(const std::string& path, bool recursive, bool showHidden, NSErrorRef* error,
                     FSItems& items);
  void enterListing(const KZVDropboxFileManager::MetadataRef& folder);
  bool recordListedChild(const std::string& folderKey, const KZVDropboxFileManager::MetadataRef& folder,
                         const KZVDropboxFileManager::MetadataRef& child);
  std::shared_ptr<FSItem> itemFor(const KZVDropboxFileManager::MetadataRef& record);

  using MakeCopy = std::function<std::shared_ptr<NSURL>()>;
  std::shared_ptr<NSURL> cachedOrNewCopy(const std::string& key, const ProgressCallback& progress,
                                         NSErrorRef* error, const MakeCopy& findCached, const MakeCopy& make);
  std::shared_ptr<NSURL> cachedCopy(const std::string& path, const std::string& key);
  std::shared_ptr<NSURL> makeLocalCopy(const std::string& path, const std::string& key,
                                       ProgressCallback progress, NSErrorRef* error);
  std::shared_ptr<NSURL> copyFile(KZVDropboxFileManager::MetadataRef& record, const std::string& path,
                                  const std::string& folder, ProgressCallback progress, NSErrorRef* error);
  std::shared_ptr<NSURL> copyFolder(const std::string& path, const std::string& folder,
                                    const ProgressCallback& progress, NSErrorRef* error);
  std::shared_ptr<NSURL> copyOfVersion(const std::string& version, ProgressCallback progress,
                                       NSErrorRef* error);
  std::string requiredTemporaryFolder(NSErrorRef* error);
  static NSErrorRef temporaryFileError();
  std::shared_ptr<NSURL> fetchPreview(const std::string& path, NSErrorRef* error);

  Guarded<std::shared_ptr<NSURL>> tmpFolderUrl_;
  std::optional<std::string> userId_;
  std::shared_ptr<KZVDropboxFileManager> manager_;
  const std::shared_ptr<ThumbnailCache> cachedThumbs_;
  const std::shared_ptr<KZVSmartCache> cache_;
  KeyedGate copiesBeingMade_;  // by the cache's keys
  /// By identity: two items of one path are two entries. Readers copy the list.
  Guarded<FSItems> _watchedFolders;
};
