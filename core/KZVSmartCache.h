#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/NSObject.h"
#include "foundation/NSURL.h"

/// LRU cache of local copies by key (a remote path). Owns the copies: counts their users, keeps released ones
/// up to a byte budget and deletes the least recently used. A copy in use is never deleted, only forgotten,
/// and deleted when its last user releases it. A copy is a file, or a folder with its contents; its size is
/// measured when it is stored. Any thread; no lock is held while copies are measured or deleted.
///
/// A path may be stored again, for example by a second download after invalidate(). All users of a path then
/// count together, and the path is kept until the last one has gone. Only the file that was stored is ever
/// deleted, not one that has been put at its path since.
class KZVSmartCache final : public NSObject {
 public:
  static constexpr std::uint64_t defaultBudgetBytes = 2'000'000'000;
  /// @param budgetBytes  the total size of copies without users.
  explicit KZVSmartCache(std::uint64_t budgetBytes = defaultBudgetBytes);
  /// Deletes the copies without users; those in use stay on the disk.
  ~KZVSmartCache() override;

  /// The copy under `key` with one more user, or nothing. A copy whose file has gone counts as absent.
  std::shared_ptr<NSURL> urlForKey(const std::string& key);
  /// Holds `url` (a file URL) under `key` with one more user; another copy there before is forgotten. Blocks
  /// while a folder is measured.
  void setUrl(std::shared_ptr<NSURL> url, const std::string& key);
  /// The key under which `url` is held (also of a forgotten copy that still has users), or nothing.
  std::shared_ptr<const std::string> keyForUrl(const NSURL& url) const;
  /// One user less for the copy at `url`; a URL that is not held, or has no users, is ignored. May block
  /// while files are deleted.
  void releaseUrl(const NSURL& url);
  /// Forgets what is held under `key`, which is compared as given. May block while files are deleted.
  void invalidate(const std::string& key);

 private:
  struct State;
  const std::unique_ptr<State> state_;
};
