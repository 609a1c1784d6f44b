#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/NSObject.h"
#include "foundation/NSURL.h"

/// LRU cache of local copies by key (a remote path). Owns the copies: counts their users, keeps released ones
/// up to a byte budget and deletes the least recently used. A copy in use is not deleted but forgotten, and
/// deleted when its last user releases it. A copy is a file, or a folder with its contents; its size is
/// measured when it is stored. Any thread; no lock is held while copies are measured or deleted.
///
/// A path may be stored again, for example by a second download after invalidate(). All users of the path are
/// then counted together, and it is kept until the last one releases it. Only the file that was stored is
/// ever deleted, not one that was put at its path since.
class KZVSmartCache final : public NSObject {
 public:
  static constexpr std::uint64_t defaultBudgetBytes = 2'000'000'000;
  /// @param budgetBytes  the maximal total size of copies without users.
  explicit KZVSmartCache(std::uint64_t budgetBytes = defaultBudgetBytes);
  /// Deletes the copies without users; those in use stay on the disk. Blocks for the disk.
  ~KZVSmartCache() override;

  /// The copy under `key`, with one more user; null if there is none, or if its file was removed.
  std::shared_ptr<NSURL> urlForKey(const std::string& key);
  /// Stores `url` (a file URL) under `key` with one user; another copy under `key` is forgotten. Blocks for
  /// the disk.
  void setUrl(std::shared_ptr<NSURL> url, const std::string& key);
  /// The key of the copy at `url` (also of a forgotten one that still has users), or null.
  std::shared_ptr<const std::string> keyForUrl(const NSURL& url) const;
  /// Removes one user of the copy at `url`; ignored if it is unknown or has none. May block while files are
  /// deleted.
  void releaseUrl(const NSURL& url);
  /// Forgets the copy under `key`, which is compared as given. May block while files are deleted.
  void invalidate(const std::string& key);

 private:
  struct State;
  const std::unique_ptr<State> state_;
};
