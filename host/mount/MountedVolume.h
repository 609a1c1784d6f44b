#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/FSPlugin.h"
#include "host/mount/FileContent.h"
#include "host/mount/MountNames.h"
#include "host/mount/MountTree.h"
#include "host/mount/PathLocks.h"
#include "host/mount/UploadJournal.h"

/// Where the kernel keeps copies of what it was told, and must be told of changes made elsewhere. Called from
/// the volume's own threads, never under its locks; may block.
class KernelCache {
 public:
  virtual ~KernelCache() = default;
  /// The name in the folder means something else now, or nothing.
  virtual void entryChanged(NodeId folder, const std::string& name) = 0;
  /// Size, date or bytes are others now.
  virtual void contentChanged(NodeId file) = 0;
  virtual void listingChanged(NodeId folder) = 0;
};

/// What a file system answers: a value, or an errno value.
template <class Value>
struct Answer {
  Value value{};
  int error = 0;
};

struct NodeAttributes {
  NodeId id = 0;
  bool isFolder = false;
  std::uint64_t sizeBytes = 0;
  NSDate::Time modified{};
};

/// Whether the program that asked has been told to stop; asked now and then while an operation goes on.
using IsInterrupted = std::function<bool()>;

/// One open file. Made by open and create, ended by release.
struct OpenFile {
  MountNodeRef node;
  std::shared_ptr<FileContent> content;
  FileContent::Access access = FileContent::Access::read;
  bool isUncached = false;  // the kernel keeps no pages of what goes through this one
};

/// Whether the account is still linked.
using IsLinked = std::function<bool()>;

/// A volume as a tree of numbered nodes with the operations that a kernel asks for: everything about a
/// mounted account but the kernel's own protocol. Talks to the account through FSPlugin and nothing else.
///
/// Names are the same where the volume says so. A file is sent when its last writer closes it; until the
/// service has it, it is in the journal, from which it is sent again, in this process or the next. What
/// another device changed is never overwritten: the service keeps both. Folders that were shown are watched,
/// and listed anew when they change. A file's new version gets a node of its own, as if it had been renamed
/// over the one before: the kernel's caches then hold one version a node, and an open file keeps its version.
///
/// Threads: any, but not the main thread. Operations block until the service has answered; only those that
/// change the tree wait for each other, and only where their paths meet (PathLocks). Errors are errno values:
/// ENOENT, EEXIST, ENOTDIR, EISDIR, ENOTEMPTY, EINVAL and ENAMETOOLONG (names that the service cannot keep),
/// EACCES (also: the account is not linked any more), ENOSPC, EINTR, EBUSY (the service asks to wait), EIO
/// (no connection), ESTALE (the name means another node now: look again). Lock order: a path's hold first,
/// then treeMutex_, then a file's own; nothing blocks under treeMutex_.
class MountedVolume {
 public:
  /// Links that anybody can open, by path of the volume. Each may be empty, and answers nothing without an
  /// error when there is none or the account cannot have any.
  struct LinkSource {
    using Ask = std::function<std::optional<std::string>(const std::string& path, NSErrorRef* error)>;
    Ask find;  // the one there is; makes none
    Ask make;  // makes one where there is none
  };

  /// @param kernel  may be told things as long as this lives.
  /// @param isLinked  asked when the volume fails without a reason; must not block. Empty: it always is.
  MountedVolume(std::shared_ptr<FSPlugin> volume, std::shared_ptr<UploadJournal> journal, KernelCache& kernel,
                LinkSource links, IsLinked isLinked = {});
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;
  /// Ends the threads and watches; what has not been sent stays in the journal.
  ~MountedVolume();

  /// Puts back what an interrupted rename had set aside, takes up what earlier processes could not send, and
  /// begins to send it in the background.
  void start();
  /// Sends what waits, at most until `patience` has passed. False when something still waits.
  bool flushJournal(std::chrono::milliseconds patience);
  /// Ends waiting operations: the mount is going away.
  void stop();

  // The tree (MountedVolume_tree.cpp)

  struct Found {
    MountNodeRef node;
    NodeAttributes attributes;
    bool isOtherSpelling = false;  // the item's name is written differently
  };
  /// The item `name` in the folder. Counts as told to the kernel.
  Answer<Found> lookup(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);
  void forget(NodeId node, std::uint64_t count);
  Answer<NodeAttributes> attributes(NodeId node);
  struct ListedItem {
    MountNodeRef node;
    std::string name;
  };
  using Listing = std::vector<ListedItem>;
  Answer<std::shared_ptr<const Listing>> list(NodeId folder, const IsInterrupted& isInterrupted);
  /// The attributes of an item of a listing that is still there, which then counts as told to the kernel.
  std::optional<NodeAttributes> showListed(const ListedItem& item);
  /// Bytes: total, free, as they were told last; EIO while nobody has told them.
  Answer<std::pair<std::uint64_t, std::uint64_t>> space();
  /// The version of a file as the volume tells it (ENODATA when not known).
  Answer<std::string> revision(NodeId node);
  /// The link to the item that anybody can open (ENODATA without one).
  Answer<std::string> publicLink(NodeId node);
  /// Makes such a link (EOPNOTSUPP when the account cannot).
  int makePublicLink(NodeId node);

  // Files (MountedVolume_files.cpp)

  struct Opened {
    std::unique_ptr<OpenFile> file;
    NodeAttributes attributes;
    bool keepsCache = false;  // the kernel's page cache is current
    /// The kernel has to drop what it knows of the file before it reads; then kernelCaughtUp is to be called.
    bool isKernelBehind = false;
  };
  /// @param flags  as open(2): O_RDONLY, O_WRONLY, O_RDWR, O_TRUNC.
  Answer<Opened> open(NodeId node, int flags, const IsInterrupted& isInterrupted);
  struct Created {
    Found found;
    Opened opened;
  };
  Answer<Created> create(NodeId folder, const std::string& name, int flags,
                         const IsInterrupted& isInterrupted);
  /// Where to read from; the bytes are fetched if they are not at hand.
  Answer<FileContent::Bytes> bytesOf(OpenFile& file, const IsInterrupted& isInterrupted);
  /// Lets `put` write at the file's descriptor, which then has `sizeBytes`.
  int write(OpenFile& file, const std::function<int(int descriptor, std::uint64_t sizeBytes)>& put,
            const IsInterrupted& isInterrupted);
  /// Whether the file may grow to `sizeBytes` without being written so far: ENOSPC when the disk has no room
  /// for that. A hole itself takes none, but all of the file's bytes are sent.
  /// @param file  may be null.
  int checkRoom(NodeId node, const OpenFile* file, std::uint64_t sizeBytes) const;
  int truncate(NodeId node, OpenFile* file, std::uint64_t sizeBytes, const IsInterrupted& isInterrupted);
  int setModified(NodeId node, NSDate::Time time);
  /// One of the file's descriptors is closed: the last one that wrote sends. The errno value is for close(2);
  /// the bytes are safe in the journal whatever it is, unless the disk is full.
  int flush(OpenFile& file, const IsInterrupted& isInterrupted);
  /// Sends now.
  int sync(OpenFile& file, const IsInterrupted& isInterrupted);
  void release(std::unique_ptr<OpenFile> file);
  void kernelCaughtUp(OpenFile& file);

  // Changes (MountedVolume_changes.cpp)

  Answer<Found> makeFolder(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);
  int removeFile(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);
  int removeFolder(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);
  enum class Target { mayExist, mustNotExist };
  int rename(NodeId fromFolder, const std::string& fromName, NodeId toFolder, const std::string& toName,
             Target target, const IsInterrupted& isInterrupted);

 private:
  /// What the kernel is told once the locks are given up.
  struct Notices {
    std::vector<std::pair<NodeId, std::string>> entries;
    std::vector<NodeId> contents;
    std::vector<NodeId> listings;
    std::vector<std::shared_ptr<FileContent>> unused;  // released then
  };
  /// A file that waits to be sent: a node's, or one that an earlier process left (by its path).
  struct Waiting {
    MountNodeRef node;
    std::shared_ptr<FileContent> content;
    std::optional<UploadJournal::Upload> left;
    std::chrono::steady_clock::time_point due;
    int failures = 0;
    bool isFolderListed = false;  // for what was left: its folder has been asked to show it
  };
  /// News of watched folders, from the main thread to the refreshing one; outlives the volume if it must.
  struct Inbox;
  /// A path that stays what it is while this lives.
  struct HeldPath {
    std::string path;
    bool isRemote = false;
    PathLocks::Hold hold;
  };
  /// A node whose subtree belongs to the caller alone while this lives.
  struct Claimed {
    std::string path;
    bool isRemote = false;
    PathLocks::Hold hold;
  };
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t maxKept = 32;
  static constexpr std::uint64_t maxKeptBytes = 256ULL * 1024 * 1024;
  static constexpr std::uint64_t minFreeToKeep = 4 * maxKeptBytes;  // on the disk
  static constexpr std::chrono::seconds firstRetryDelay{15};
  static constexpr std::chrono::minutes longestRetryDelay{5};

  /// Repeats `operation` (bool(NSErrorRef*)) a few times while its failures may pass by themselves.
  template <class Operation>
  int attempt(const IsInterrupted& isInterrupted, Operation&& operation);
  bool pause(std::chrono::milliseconds time, const IsInterrupted& isInterrupted);

  MountNodeRef find(NodeId number) const;
  Answer<std::string> askForLink(NodeId number, const LinkSource::Ask& ask);
  NodeAttributes attributesOf(const MountNode& node) const;
  /// What the failure of an operation of the volume is to a program.
  int reasonOf(const NSErrorRef& error) const;
  Found foundLocked(const MountNodeRef& node, const std::string& name);
  std::optional<HeldPath> holdPath(const MountNodeRef& node);
  int ensureListed(const MountNodeRef& folder, const IsInterrupted& isInterrupted);
  /// The child under `name`, the folder listed; an empty node when there is none.
  Answer<MountNodeRef> childOf(const MountNodeRef& folder, const std::string& name,
                               const IsInterrupted& isInterrupted);
  std::vector<MountNodeRef> applyListing(MountNode& folder, const FSItems& items, Notices& notices);
  void addMissing(MountNode& folder, const FSItems& items, Notices& notices);
  static bool isOtherVersion(const MountNode& node, const FSItem& item);
  void show(MountNode& node, const FSItem& item, Notices& notices);
  bool showNewVersion(const MountNodeRef& node, const FSItem& item, Notices& notices);
  void adoptLeftUploads(MountNode& folder);
  void adoptLeftLocals(MountNode& folder);
  bool adoptLocal(MountNode& folder, const UploadJournal::Local& local);
  bool hasLeftBelow(const std::string& path);
  void moveLeft(const std::string& from, const std::string& to);
  void watch(const MountNodeRef& folder, const std::string& path);
  void unwatch(MountNode& folder);
  void moveWatches(const std::vector<MountNodeRef>& folders);
  void refreshChangedFolders();
  void askForSpace(std::unique_lock<std::mutex>& lock);
  void tell(const Notices& notices);

  int fetch(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
            const IsInterrupted& isInterrupted);
  int fetchFrom(const std::string& path, const MountNodeRef& node,
                const std::shared_ptr<FileContent>& content, const IsInterrupted& isInterrupted);
  void fetchForReaders(const MountNodeRef& node, const std::string& path, const IsInterrupted& isInterrupted);
  WriteBase baseToReplace(const MountNodeRef& node) const;
  std::shared_ptr<FileContent> contentOf(const MountNodeRef& node) const;
  std::shared_ptr<FileContent> useContent(const MountNodeRef& node, FileContent::Access access);
  /// The content of a file with its bytes at hand and one reader more, whom the caller removes.
  Answer<std::shared_ptr<FileContent>> useForReading(const MountNodeRef& node,
                                                     const IsInterrupted& isInterrupted);
  void dropContent(const MountNodeRef& node, const std::shared_ptr<FileContent>& content);
  void keepLocked(const MountNodeRef& node, std::vector<std::shared_ptr<FileContent>>& unused);
  std::optional<HeldPath> holdPlace(const MountNodeRef& node, const FileContent& content);
  int prepare(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
              FileContent::Access access, bool truncates, const IsInterrupted& isInterrupted);
  Answer<Created> openExisting(const MountNodeRef& node, const std::string& name, int flags,
                               const IsInterrupted& isInterrupted);
  void recordLocal(const MountNodeRef& node, FileContent& content);
  void noteWritten(const MountNodeRef& node, const std::shared_ptr<FileContent>& content);
  Opened openedLocked(const MountNodeRef& node, std::shared_ptr<FileContent> content,
                      FileContent::Access access, bool keepsCache);
  enum class Manner { foreground, background };
  int send(const MountNodeRef& node, const std::shared_ptr<FileContent>& content, Manner manner,
           const IsInterrupted& isInterrupted);
  void noteStored(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                  const std::string& path, const StoredFile& stored);
  void sendLater(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                 std::chrono::milliseconds delay);
  void showFolder(const std::string& path);
  int sendLeft(const UploadJournal::Upload& left);
  void sendWaiting();
  bool sendOne(const Waiting& waiting);
  void noteElsewhere(const std::string& path, const StoredFile& stored);
  void refreshSoon(const std::string& path);
  void recoverRenames();

  int removeRemote(const std::string& path, const IsInterrupted& isInterrupted);
  int moveRemote(const std::string& from, const std::string& to, const IsInterrupted& isInterrupted);
  bool isEmptyNow(const MountNodeRef& folder, const std::string& path, const IsInterrupted& isInterrupted,
                  int& error);
  Answer<Claimed> claimSubtree(const MountNodeRef& node, const IsInterrupted& isInterrupted);
  bool isReplaced(const MountNodeRef& node) const;
  void takeOut(const MountNodeRef& node, const std::string& name);
  struct RenamePlan;
  int claim(RenamePlan& plan, const IsInterrupted& isInterrupted);
  int renameUnsent(RenamePlan& plan, bool staysLocal, const IsInterrupted& isInterrupted);
  bool isChangedElsewhere(const MountNodeRef& node, const std::string& path);
  bool staysOnThisMachine(const RenamePlan& plan, NameKind toKind) const;
  int renameClaimed(RenamePlan& plan, Target target, const std::shared_ptr<FileContent>& bytes,
                    NameKind toKind, const IsInterrupted& isInterrupted);
  int renameToLocal(RenamePlan& plan, const std::shared_ptr<FileContent>& content);
  int renameLocalFolder(RenamePlan& plan, const IsInterrupted& isInterrupted);
  int renameRemote(RenamePlan& plan, const IsInterrupted& isInterrupted);
  void hang(RenamePlan& plan);

  const std::shared_ptr<FSPlugin> volume_;
  const std::shared_ptr<UploadJournal> journal_;
  KernelCache& kernel_;
  const LinkSource links_;
  const IsLinked isLinked_;
  PathLocks paths_;
  const NSDate::Time startTime_ = std::chrono::system_clock::now();

  mutable std::mutex treeMutex_;
  MountTree tree_;  // guarded by treeMutex_
  /// Files that were written and sent, the last closed at the end: they keep their bytes for a while, so that
  /// reading them again does not fetch what has just been sent.
  std::deque<std::weak_ptr<MountNode>> kept_;  // guarded by treeMutex_
  /// Files that stay on this machine whose folder has not been listed yet. Guarded by treeMutex_.
  std::vector<UploadJournal::Local> leftLocals_;

  std::mutex watchMutex_;  // the volume takes watches from one thread at a time
  const std::shared_ptr<Inbox> inbox_;
  std::thread refresher_;

  std::mutex waitingMutex_;
  std::condition_variable waitingChanged_;
  std::deque<Waiting> waiting_;  // guarded by waitingMutex_
  int sendingNow_ = 0;           // guarded by waitingMutex_: taken from waiting_, not finished
  std::atomic<bool> isStopping_{false};
  std::thread sender_;

  std::mutex spaceMutex_;
  std::condition_variable spaceTold_;
  std::optional<std::pair<std::uint64_t, std::uint64_t>> space_;  // guarded by spaceMutex_
  std::chrono::steady_clock::time_point spaceAskedAt_;            // guarded by spaceMutex_
  bool isAskingForSpace_ = false;                                 // guarded by spaceMutex_
};
