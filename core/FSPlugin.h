#pragma once
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/FSError.h"
#include "core/FSItem.h"
#include "core/FSReader.h"
#include "core/ProgressCallback.h"
#include "core/WriteBase.h"
#include "foundation/LocalAccess.h"
#include "foundation/NSArray.h"
#include "foundation/NSDictionary.h"
#include "foundation/NSError.h"
#include "foundation/NSImage.h"
#include "foundation/NSURL.h"

using FSItems = std::vector<std::shared_ptr<FSItem>>;

/// Why a volume does not allow a name.
struct NameProblem {
  enum class Kind {
    malformed,  // empty, or with characters that the volume does not allow
    tooLong,
    reserved  // well formed, but refused, for instance as the name of a temporary file
  };
  Kind kind = Kind::malformed;
  std::string text;  // for people: "a name cannot end with a space"
};

/// In bytes. Free space is negative if more is used than the total.
struct VolumeSpace {
  std::int64_t totalBytes = 0;
  std::int64_t freeBytes = 0;
};

/// For prepareToListTree: a tree of any size.
inline constexpr std::size_t anyNumberOfItems = std::numeric_limits<std::size_t>::max();

/// One file system that a plug-in offers, for instance one account. The host talks to volumes through this
/// interface alone. Paths begin with "/", which alone is the root, in UTF-8.
///
/// Threads: any host thread may call the operations, several concurrently, but not from callbacks of the main
/// thread's run loop or from a progress callback; they block until they are done. Errors: `error` may be null
/// and is written only on failure; fsErrorCode (core/FSError.h) gives its meaning for every volume. An absent
/// result without an error is failure, too: the item does not exist, or the account is no longer linked.
class FSPlugin : public NSObject, public std::enable_shared_from_this<FSPlugin> {
 public:
  ~FSPlugin() override;

  // Identity. These do not block.
  /// The `options` of makePlugin, which identify the volume.
  virtual id options() const = 0;
  virtual std::string label() const = 0;
  virtual bool isFSAvailable() const = 0;
  virtual std::shared_ptr<FSItem> parentItem() const = 0;
  virtual bool isEjectable() const = 0;
  virtual void eject() = 0;
  virtual std::shared_ptr<NSURL> tmpFolderUrl() const = 0;
  virtual void setTmpFolderUrl(std::shared_ptr<NSURL> url) = 0;

  // Names. These do not block.
  /// Why the volume does not allow this name; nothing when it does. `name` is one component of a path. The
  /// default is that of a simple disk: UTF-8 of at most 255 bytes.
  virtual std::optional<NameProblem> nameProblem(std::string_view name) const;
  /// The key of a name: two names in one folder are the same item when their keys are equal. The default, the
  /// name itself, is for case-sensitive volumes. A key contains no slash.
  virtual std::string nameKey(std::string_view name) const { return std::string(name); }
  /// The path of the components' keys.
  std::string pathKey(std::string_view path) const;

  // Reading the tree.
  virtual bool isSeekable() const = 0;
  virtual bool isExecutable(const std::string& path) = 0;
  virtual bool isExists(const std::string& path) = 0;
  virtual bool isReadable(const std::string& path) = 0;
  virtual bool isWritable(const std::string& path) = 0;
  /// NSFileSize, NSFileType and, if known, NSFileModificationDate.
  virtual std::shared_ptr<NSDictionary> attributesAtPath(const std::string& path, NSErrorRef* error) = 0;
  /// The item at `path` as in a listing, with its version and id. The default, for volumes without these,
  /// uses attributesAtPath.
  virtual std::shared_ptr<FSItem> itemAtPath(const std::string& path, NSErrorRef* error);
  /// The items of a folder; with `recursive` those below it too, each folder followed by its own items.
  /// Nothing on failure, even if only one subfolder failed.
  virtual std::optional<FSItems> contentAtPath(const std::string& path, bool recursive, bool showHidden,
                                               NSErrorRef* error) = 0;

  /// Many items are about to be looked up or listed, for example by a batch copy. A hint, for volumes that
  /// can prepare a cache in the background. Does not block.
  virtual void prepareForManyLookUps() {}

  /// The folder at `path` and everything below it are about to be listed, folder by folder. A hint, for
  /// volumes that can load a whole tree faster than that. Blocks until it is loaded; failures are not
  /// reported, since listing a folder reports its own.
  /// @param maxItems  the caller will not list more, so a tree with more items is not loaded.
  /// @return false when the tree has more.
  virtual bool prepareToListTree(const std::string& /*path*/, std::size_t /*maxItems*/) { return true; }

  // Transfer and tree changes. A read-only file system keeps these defaults, which fail with "not supported".
  /// A local copy of a file or folder, kept until every returned URL has been passed to releaseFileUrl.
  virtual std::shared_ptr<NSURL> requestFileUrl(const std::string& path, ProgressCallback progress,
                                                NSErrorRef* error);
  virtual void releaseFileUrl(const NSURL& url);
  /// Downloads a file to `target` on this computer without keeping another copy: the file appears complete
  /// and durable, with its modification date, and replaces an existing one. `item` gives the path and, if it
  /// comes from this volume, the version. The default copies the result of requestFileUrl.
  virtual bool fetchFile(const FSItem& item, const NSURL& target, LocalAccess access,
                         ProgressCallback progress, NSErrorRef* error);
  /// Opens one version of a file for reading by ranges; the reader keeps working when the file is replaced,
  /// moved or deleted. May block until bytes have been received.
  /// @param path      the file's path, now or when `version` was current.
  /// @param version   as FSItem::version; empty: the current one, which the reader's version() returns.
  /// @param progress  as for requestFileUrl.
  /// @return null on failure. The default opens a local copy of the current version and fails with `conflict`
  /// when that is known not to be the requested one.
  virtual std::shared_ptr<FSReader> openReader(const std::string& path, const std::string& version,
                                               ProgressCallback progress, NSErrorRef* error);
  /// Stores a local file under the remote path `path`. True once it is stored.
  virtual bool writeFile(const NSURL& source, const std::string& path, ProgressCallback progress,
                         NSErrorRef* error);
  /// As writeFile, for a file that is based on the version `base`: if the volume has another version by now,
  /// that is kept, and this file is stored beside it under the returned path. Nothing on failure. The
  /// default, for volumes without versions, is writeFile.
  virtual std::optional<StoredFile> storeFile(const NSURL& source, const std::string& path,
                                              const WriteBase& base, ProgressCallback progress,
                                              NSErrorRef* error);
  /// The file's latest version that this process knows (see FSItem::version); nothing when unknown, for
  /// folders, and on volumes without versions. Does not block.
  virtual std::optional<std::string> revisionAtPath(const std::string& /*path*/) { return std::nullopt; }
  /// Removes a file, or a folder with everything in it.
  virtual bool removeItemAtPath(const std::string& path, NSErrorRef* error);
  /// Moves or renames; `to` is the full new path. `attributes` may be null.
  virtual bool moveFromPath(const std::string& path, const std::string& to,
                            const std::shared_ptr<NSDictionary>& attributes, ProgressCallback progress,
                            NSErrorRef* error);
  /// Creates a folder; succeeds if it exists. `attributes` may be null.
  virtual bool createDirectoryAtPath(const std::string& path, const std::shared_ptr<NSDictionary>& attributes,
                                     NSErrorRef* error);
  /// Size and free space in bytes: NSFileSystemSize, NSFileSystemFreeSize (which may be negative).
  virtual std::shared_ptr<NSDictionary> fsAttributes(const std::string& path, NSErrorRef* error);
  /// The volume's size and free space; nothing on failure. The default uses fsAttributes, which may fail
  /// without an error.
  virtual std::optional<VolumeSpace> space(NSErrorRef* error);

  // Pictures. Null without an error: there is none for this item.
  virtual std::shared_ptr<NSImage> icon(const std::string& /*path*/, NSErrorRef* /*error*/) {
    return nullptr;
  }
  virtual std::shared_ptr<NSImage> preview(const std::string& /*path*/, NSErrorRef* /*error*/) {
    return nullptr;
  }

  // Watching. A file system that cannot be watched keeps these defaults.
  /// Calls the item's change callback on the main queue whenever the folder has changed, until
  /// stopWatchFolder with the same object has returned on the main thread; on other threads a call may still
  /// be running then. Watching a file does nothing. Call these three from one thread at a time.
  virtual void startWatchFolder(const std::shared_ptr<FSItem>& /*item*/) {}
  virtual void stopWatchFolder(const std::shared_ptr<FSItem>& /*item*/) {}
  virtual FSItems watchedFolders() const { return {}; }
  /// Polls now for changes made elsewhere. Blocks; failures are not reported.
  virtual void pollForChanges() {}
};

/// The operations of a plug-in that need no volume. One object per loaded bundle, never destroyed. Any thread
/// unless a member says otherwise.
class FSPluginClass : public NSObject {
 public:
  ~FSPluginClass() override;
  /// Why the plug-in must not start with its settings from the environment, as a text for the person who set
  /// them; null when it may. Called before initialize. Does not block.
  virtual NSErrorRef settingsProblem() const { return nullptr; }
  /// Called once by the loader before all else. Blocks until the plug-in can be used.
  virtual void initialize() = 0;
  virtual std::string fsDescription() const = 0;
  /// Root items: dictionaries with the keys of KZVConstants.h. Does not block; accounts appear once their
  /// names have been loaded, and AttachedPluginsDidChangeNotification is posted then.
  virtual std::shared_ptr<NSArray> availableRootItems() const = 0;
  /// An instance for `options` (the value under KZVFSOptions): the attached one, if there is one; null when
  /// there is no such volume. `item` may be null. The host attaches the instances it keeps
  /// (KZVCoreObj::attach).
  virtual std::shared_ptr<FSPlugin> makePlugin(const std::shared_ptr<FSItem>& item, const id& options) = 0;

  /// The accounts interface, or null when the plug-in has no accounts.
  virtual class FSPluginAccounts* accounts() { return nullptr; }
};

/// What the service knows about one account.
struct AccountDetails {
  std::string accountId;
  std::string email;  // empty: none
  std::string name;   // empty: none
  VolumeSpace space;
};

/// A link to a file or folder.
struct PublicLink {
  std::string url;
  /// Who can open it: "public" (anybody), or the service's name for a narrower audience, such as "team_only"
  /// or "password"; empty when unknown.
  std::string audience;
};

/// The accounts of a plug-in.
class FSPluginAccounts {
 public:
  virtual ~FSPluginAccounts();
  /// The ids of the linked accounts, in the order of linking; each is an `options` value. Does not block. An
  /// account appears here at once, while its root item needs an answer from the service.
  virtual std::vector<std::string> linkedAccountIds() const = 0;
  /// Why linkedAccountIds() may lack accounts: the store could not be read, or only in part. Null when
  /// everything was read. Does not block.
  virtual NSErrorRef accountsError() const { return nullptr; }
  /// Links the account of an access token (or of a token response as JSON, with a refresh token). Blocks for
  /// two requests. Returns the account's id, or nothing with the error.
  virtual std::optional<std::string> linkAccountWithToken(const std::string& token, NSErrorRef* error) = 0;
  // Linking in the browser, and the desktop client. A plug-in without them keeps these defaults.
  /// How the authorization code gets from the page to this program.
  enum class LinkingAnswer {
    byRedirect,  // the browser is redirected to this machine
    typedIn      // the page shows a code, to be passed to useAuthorizationCode
  };
  /// Starts to link an account: opens a page with NSWorkspace::openURL, then waits for
  /// NSApplicationDidBecomeActiveNotification, at most 10 minutes. KZVAccountLinkingNotification is posted at
  /// each step. A pending linking is replaced. Returns at once; false when the plug-in cannot link accounts.
  virtual bool linkAccount(LinkingAnswer /*answer*/) { return false; }
  /// Takes a code that the person copied from the page, which the next activation uses. False when the text
  /// cannot be a code, or no linking is pending. The code is a secret: log it nowhere.
  virtual bool useAuthorizationCode(const std::string& /*code*/) { return false; }
  /// Cancels every linkAccount() so far, also one that has not started yet: once this has returned, they open
  /// no page and link no account. Blocks briefly; does nothing without a pending linking.
  virtual void cancelLinking() {}
  /// The local folder of the file system's own desktop client; nothing when there is none.
  virtual std::optional<std::string> desktopFolder() const { return std::nullopt; }
  /// The id of the linked account that the desktop client uses; nothing when unknown.
  virtual std::optional<std::string> desktopAccountId() const { return std::nullopt; }
  /// Sets desktopAccountId(); an id that is not linked is ignored. Blocks for the disk. False, with an error,
  /// when it could not be stored: it then applies to this process only.
  virtual bool setDesktopAccountId(const std::string& /*accountId*/, NSErrorRef* /*error*/) { return true; }
  /// Asks the service about a linked account. Blocks; nothing on failure, without an error when the account
  /// is not linked.
  virtual std::optional<AccountDetails> accountDetails(const std::string& /*accountId*/,
                                                       NSErrorRef* /*error*/) {
    return std::nullopt;
  }
  /// The public link to an item of the desktop client's account, created if there is none: a new one has the
  /// account's default audience (normally everybody), an existing one keeps its own. Nothing on failure,
  /// without an error when desktopAccountId() is unknown. Blocks.
  virtual std::optional<PublicLink> publicLink(const std::string& /*path*/, NSErrorRef* /*error*/) {
    return std::nullopt;
  }
  /// The same, but creates none: nothing, without an error, when there is none. Blocks.
  virtual std::optional<std::string> existingLink(const std::string& /*path*/, NSErrorRef* /*error*/) {
    return std::nullopt;
  }
  /// Unlinks the account at once, then revokes its authorization at the service, for which it blocks up to a
  /// time limit. False, with an error that says what is left to be done by hand, when the account could not
  /// be removed from the store or the authorization could not be revoked; the account is no longer used here
  /// in either case. Unknown ids are ignored.
  virtual bool unlinkAccount(const std::string& accountId, NSErrorRef* error) = 0;
  /// Blocks until background work (revoking tokens) is done, at most for `seconds`: for a program about to
  /// end.
  virtual void finishBackgroundWork(double seconds) = 0;
};
