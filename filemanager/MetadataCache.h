#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/NSObject.h"
#include "sdk/DBMetadata.h"

/// Cache of one account's records by path, grouped by folder so that invalidating a subtree costs its folders
/// only. Also tracks fetches in flight, so that an answer that a change has made stale is not cached.
///
/// Nothing is cached until startKeeping(): without a cursor of the change feed a cached record would never be
/// invalidated.
///
/// Threads: every member REQUIRES synced(cache): the cache object is its own lock. Keys come from keyOf only.
class MetadataCache final : public NSObject {
 public:
  using Record = std::shared_ptr<const DBMetadata>;
  /// Names a fetch between beginFetch and endFetch.
  using Fetch = std::uint64_t;

  /// The only way from a path to a key: a second way is how a stale entry survives. caselessKey, no empty
  /// components, no slash at the end but the root's own.
  static std::string keyOf(std::string_view path);
  /// The key of a record: the service's own lower-cased path, so that its change feed finds the entry again.
  static std::string keyOf(const DBMetadata& record);

  /// Caches what is stored and fetched from now on. To be called with the feed's first cursor; further calls
  /// do nothing. True when records were fetched, or are being fetched, that were not cached: their users may
  /// have missed a change.
  bool startKeeping();
  Record find(std::string_view key) const;
  void store(std::string_view key, Record record);
  /// Whether every child of `folder`, the listing that is cached at `key`, has been entered and none of them
  /// has changed since; noteEntered says so after a listing was walked.
  bool isEntered(std::string_view key, const Record& folder) const;
  void noteEntered(std::string_view key, const Record& folder);
  /// Drops the record at `key` and nothing else; a fetch of it that is under way becomes stale.
  void remove(std::string_view key);
  /// Drops the record at `key` and everything below it; fetches there become stale. Returns the keys of the
  /// files dropped.
  std::vector<std::string> removeSubtree(std::string_view key);
  /// Drops everything; every fetch under way becomes stale. Returns the keys of the files dropped.
  std::vector<std::string> removeAll();
  std::size_t count() const noexcept { return count_; }

  /// Notes that `key` is being asked for.
  Fetch beginFetch(std::string_view key) { return beginFetch(key, false); }
  /// Ends the fetch; false when its path was invalidated meanwhile, or when it began before startKeeping():
  /// the answer may be given, but not kept.
  bool endFetch(Fetch fetch);
  /// Notes that the folder at `key` and everything below it are being asked for.
  Fetch beginTreeFetch(std::string_view key) { return beginFetch(key, true); }
  /// Ends the fetch and stores those of `folders` (with their contents) that no change has invalidated
  /// meanwhile; none when it began before startKeeping().
  void endTreeFetch(Fetch fetch, const std::vector<Record>& folders);
  /// Whether the folder at `key` and all folders below it are cached with their contents.
  bool holdsTree(std::string_view key) const;

 private:
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept {
      return std::hash<std::string_view>{}(text);
    }
  };
  /// Name (in lower case) -> record, for the children of one folder.
  using Children = std::unordered_map<std::string, Record, TextHash, std::equal_to<>>;
  struct Folder {
    Children children;
    /// The listing whose children these are, all of them; empty: not known. Weak and no bare address: a freed
    /// listing's address may be that of the next one.
    std::weak_ptr<const DBMetadata> entered;
  };
  /// Key of a folder -> what is known below it. Ordered, so that the folders of a subtree stand together.
  using Folders = std::map<std::string, Folder, std::less<>>;
  struct ActiveFetch {
    Fetch number;
    std::string key;
    bool isTree;
    bool isStale;
    std::set<std::string, std::less<>> removed{};          // of a tree: keys below its own
    std::set<std::string, std::less<>> removedSubtrees{};  // of a tree: the same, with what is below them
  };

  Fetch beginFetch(std::string_view key, bool isTree);

  Folders::iterator dropFolder(Folders::iterator folder, std::vector<std::string>& droppedFiles);
  void dropOne(std::string_view key, std::vector<std::string>& droppedFiles);

  Folders folders_;
  Record root_;
  std::size_t count_ = 0;
  std::vector<ActiveFetch> fetches_;
  Fetch lastFetch_ = 0;
  bool keeps_ = false;
};
