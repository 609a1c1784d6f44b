#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/NSObject.h"
#include "foundation/NSURL.h"

/// Which local copy stands for which key (a remote path). Owns the copies it holds: counts their users, keeps
/// released ones up to a byte budget and deletes the least recently used; a copy that somebody still holds is
/// never deleted, only forgotten, and goes when its last user releases it. A copy is a file or a folder with
/// what is in it; its size is measured when it is stored. Any thread; nothing is measured or deleted while
/// others wait.
///
/// A path may be stored again, for instance by a second download after invalidate(). All users of one path
/// then count together, and the path is kept until the last of them is gone. Only the very file that was
/// stored is ever deleted: one that was put at its path since is left to whoever put it there.
class KZVSmartCache final : public NSObject {
 public:
  static constexpr std::uint64_t defaultBudgetBytes = 2'000'000'000;
  /// @param budgetBytes  how much the copies without users may take together.
  explicit KZVSmartCache(std::uint64_t budgetBytes = defaultBudgetBytes);
  /// Deletes the copies that nobody holds; one that is held still stays on the disk.
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
