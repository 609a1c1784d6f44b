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

/// Why a volume cannot hold an item of a certain name.
struct NameProblem {
  enum class Kind {
    malformed,  // no name at all, or one with characters that the volume does not keep
    tooLong,
    reserved  // well formed, but refused by the volume, for instance as the name of a temporary file
  };
  Kind kind = Kind::malformed;
  std::string text;  // for people: "a name cannot end with a space"
};

/// Bytes. Free space is negative when more is used than there is.
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
  /// What makePlugin was given: the whole identity of the volume.
  virtual id options() const = 0;
  virtual std::string label() const = 0;
  virtual bool isFSAvailable() const = 0;
  virtual std::shared_ptr<FSItem> parentItem() const = 0;
  virtual bool isEjectable() const = 0;
  virtual void eject() = 0;
  virtual std::shared_ptr<NSURL> tmpFolderUrl() const = 0;
  virtual void setTmpFolderUrl(std::shared_ptr<NSURL> url) = 0;

  // Names. These do not block.
  /// Why the volume cannot hold an item of this name; nothing when it can. `name` is one component of a path.
  /// The default is that of a simple disk: UTF-8 of at most 255 bytes.
  virtual std::optional<NameProblem> nameProblem(std::string_view name) const;
  /// The key of a name: two names in one folder are the same item when their keys are equal. The default, the
  /// name itself, is that of a volume that tells letter cases apart. A key contains no slash.
  virtual std::string nameKey(std::string_view name) const { return std::string(name); }
  /// The keys of the path's components as a path.
  std::string pathKey(std::string_view path) const;

  // Reading the tree.
  virtual bool isSeekable() const = 0;
  virtual bool isExecutable(const std::string& path) = 0;
  virtual bool isExists(const std::string& path) = 0;
  virtual bool isReadable(const std::string& path) = 0;
  virtual bool isWritable(const std::string& path) = 0;
  /// NSFileSize, NSFileType and, where there is one, NSFileModificationDate.
  virtual std::shared_ptr<NSDictionary> attributesAtPath(const std::string& path, NSErrorRef* error) = 0;
  /// The item at `path` with everything that a listing would tell of it, its version and id included. A
  /// volume that has neither keeps this default, which asks attributesAtPath.
  virtual std::shared_ptr<FSItem> itemAtPath(const std::string& path, NSErrorRef* error);
  /// The items of a folder; with `recursive` those below it too, each folder followed by its own items.
  /// Nothing on failure, also when only one sub-folder failed.
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
  /// A local copy of a file or folder, kept as long as its user holds it; hand every URL back with
  /// releaseFileUrl.
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
  /// @param path      where the file is, or was when `version` was the newest.
  /// @param version   as FSItem::version; empty: the newest, which the reader's version() tells.
  /// @param progress  as for requestFileUrl; false stops the opening.
  /// @return null on failure. The default opens a local copy of the current version and fails with `conflict`
  /// when that is known not to be the requested one.
  virtual std::shared_ptr<FSReader> openReader(const std::string& path, const std::string& version,
                                               ProgressCallback progress, NSErrorRef* error);
  /// Stores a local file under the remote path `path`. True once the file system has it.
  virtual bool writeFile(const NSURL& source, const std::string& path, ProgressCallback progress,
                         NSErrorRef* error);
  /// As writeFile, for a file that is based on a certain version: if the volume has another one by now, that
  /// one stays, and this file is stored beside it under the returned name. Nothing on failure. The default,
  /// for volumes without versions, is writeFile.
  virtual std::optional<StoredFile> storeFile(const NSURL& source, const std::string& path,
                                              const WriteBase& base, ProgressCallback progress,
                                              NSErrorRef* error);
  /// The file's current version as far as this process knows (see FSItem::version); nothing when it is
  /// unknown, for folders, and for volumes without versions. Does not block.
  virtual std::optional<std::string> revisionAtPath(const std::string& /*path*/) { return std::nullopt; }
  /// Removes a file, or a folder with everything in it.
  virtual bool removeItemAtPath(const std::string& path, NSErrorRef* error);
  /// Moves or renames; `to` is the full new path. `attributes` may be empty.
  virtual bool moveFromPath(const std::string& path, const std::string& to,
                            const std::shared_ptr<NSDictionary>& attributes, ProgressCallback progress,
                            NSErrorRef* error);
  /// Makes a folder; one that exists is fine. `attributes` may be empty.
  virtual bool createDirectoryAtPath(const std::string& path, const std::shared_ptr<NSDictionary>& attributes,
                                     NSErrorRef* error);
  /// Size and free space in bytes: NSFileSystemSize, NSFileSystemFreeSize (which may be negative).
  virtual std::shared_ptr<NSDictionary> fsAttributes(const std::string& path, NSErrorRef* error);
  /// The volume's size and free space; nothing on failure. The default asks fsAttributes, which may be silent
  /// about the reason of a failure.
  virtual std::optional<VolumeSpace> space(NSErrorRef* error);

  // Pictures. Nothing without an error: there is none for this item.
  virtual std::shared_ptr<NSImage> icon(const std::string& /*path*/, NSErrorRef* /*error*/) {
    return nullptr;
  }
  virtual std::shared_ptr<NSImage> preview(const std::string& /*path*/, NSErrorRef* /*error*/) {
    return nullptr;
  }

  // Watching. A file system that cannot be watched keeps these defaults.
  /// Calls the item's change callback on the main queue whenever the folder has changed, until
  /// stopWatchFolder with the same object has returned on that queue's thread; elsewhere a call that has
  /// begun may still be under way. Watching a file does nothing. Call these three from one thread at a time.
  virtual void startWatchFolder(const std::shared_ptr<FSItem>& /*item*/) {}
  virtual void stopWatchFolder(const std::shared_ptr<FSItem>& /*item*/) {}
  virtual FSItems watchedFolders() const { return {}; }
  /// Polls for changes made elsewhere now. Blocks; failures are not reported.
  virtual void pollForChanges() {}
};

/// The class side of a plug-in: what can be asked of it without a volume. One object per loaded bundle, alive
/// for the life of the process. Any thread unless a member says otherwise.
class FSPluginClass : public NSObject {
 public:
  ~FSPluginClass() override;
  /// Why the plug-in must not start with the settings that it reads from the environment, in words for the
  /// person who set them; null when it may. Asked before initialize. Does not block.
  virtual NSErrorRef settingsProblem() const { return nullptr; }
  /// Called once by the loader before anything else. Blocks until the plug-in can be used.
  virtual void initialize() = 0;
  virtual std::string fsDescription() const = 0;
  /// Root items: dictionaries with the keys of KZVConstants.h. Does not block; accounts appear once their
  /// names have been loaded, and AttachedPluginsDidChangeNotification is posted then.
  virtual std::shared_ptr<NSArray> availableRootItems() const = 0;
  /// An instance for `options` (the value under KZVFSOptions); the one that is attached already, if there is
  /// one; nothing when there is no such volume. `item` may be empty. The host attaches what it keeps
  /// (KZVCoreObj::attach).
  virtual std::shared_ptr<FSPlugin> makePlugin(const std::shared_ptr<FSItem>& item, const id& options) = 0;

  /// The accounts interface, or null when the plug-in has no accounts.
  virtual class FSPluginAccounts* accounts() { return nullptr; }
};

/// What a service says about one account.
struct AccountDetails {
  std::string accountId;
  std::string email;  // empty: none
  std::string name;   // empty: none
  VolumeSpace space;
};

/// A link to a file or folder.
struct PublicLink {
  std::string url;
  /// Who can open it: "public" (anybody), or the service's own word for a narrower audience, such as
  /// "team_only" or "password"; empty when the service does not say.
  std::string audience;
};

/// Accounts of a plug-in class that has some.
class FSPluginAccounts {
 public:
  virtual ~FSPluginAccounts();
  /// The ids of the linked accounts, in the order of linking; each is an `options` value. Does not block. An
  /// account is here at once, while its root item needs an answer of the service.
  virtual std::vector<std::string> linkedAccountIds() const = 0;
  /// Why linkedAccountIds() may lack accounts: the place where they are stored could not be read, or not all
  /// of it. Empty when everything was read. Does not block.
  virtual NSErrorRef accountsError() const { return nullptr; }
  /// Links the account that an access token (or a token answer of the service as JSON, with a refresh token)
  /// belongs to. Blocks for two requests. Returns the account's id, or nothing with the error.
  virtual std::optional<std::string> linkAccountWithToken(const std::string& token, NSErrorRef* error) = 0;
  // Linking in the browser, and the desktop client. A plug-in without them keeps these defaults.
  /// How the person's approval comes back from the page.
  enum class LinkingAnswer {
    byRedirect,  // the browser is redirected to this machine
    typedIn      // the page shows a code, to be passed to useAuthorizationCode
  };
  /// Starts to link an account: opens a page with NSWorkspace::openURL, then waits for
  /// NSApplicationDidBecomeActiveNotification, at most 10 minutes. KZVAccountLinkingNotification is posted at
  /// each step. A pending linking is replaced. Returns at once; false when the plug-in cannot link accounts.
  virtual bool linkAccount(LinkingAnswer /*answer*/) { return false; }
  /// A code that the person copied from the page, which the next activation uses. False when the text cannot
  /// be one, or no linking waits for it. A secret: log it nowhere.
  virtual bool useAuthorizationCode(const std::string& /*code*/) { return false; }
  /// Cancels every linkAccount() so far, also one that has not begun yet: once this has returned no page
  /// opens and no account is linked for it. Blocks for a moment; without a linking it does nothing.
  virtual void cancelLinking() {}
  /// The local folder of the file system's own desktop client; nothing when there is none.
  virtual std::optional<std::string> desktopFolder() const { return std::nullopt; }
  /// The linked account that the desktop client uses; nothing when it is not known.
  virtual std::optional<std::string> desktopAccountId() const { return std::nullopt; }
  /// Records it; an id that is not linked is ignored. Blocks for the disk. False, with an error, when it
  /// could not be stored: it then holds for this process only.
  virtual bool setDesktopAccountId(const std::string& /*accountId*/, NSErrorRef* /*error*/) { return true; }
  /// Asks the service about a linked account. Blocks; nothing on failure, without an error when the account
  /// is not linked.
  virtual std::optional<AccountDetails> accountDetails(const std::string& /*accountId*/,
                                                       NSErrorRef* /*error*/) {
    return std::nullopt;
  }
  /// The link to a file of the desktop client's account, made if there is none: a new one has the account's
  /// default audience (normally everybody), an existing one keeps its own. Nothing, without an error, when no
  /// such account is known.
  virtual std::optional<PublicLink> publicLink(const std::string& /*path*/, NSErrorRef* /*error*/) {
    return std::nullopt;
  }
  /// The link that publicLink would give, if the file has one already; makes none. Nothing, without an error,
  /// when there is none.
  virtual std::optional<std::string> existingLink(const std::string& /*path*/, NSErrorRef* /*error*/) {
    return std::nullopt;
  }
  /// Forgets the account here at once, then ends its authorization at the service, for which it blocks
  /// (bounded). False, with an error that says what is left to be done by hand, when the account could not be
  /// removed from the store or the authorization could not be ended; the account is no longer used here in
  /// either case. Unknown ids are ignored.
  virtual bool unlinkAccount(const std::string& accountId, NSErrorRef* error) = 0;
  /// Waits until work begun in the background (revoking tokens) is done, at most `seconds`: for a program
  /// about to end.
  virtual void finishBackgroundWork(double seconds) = 0;
};
