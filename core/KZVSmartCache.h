#pragma once
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/NSObject.h"
#include "foundation/NSURL.h"

/// Which local copy stands for which key (a remote path). Owns the copies it holds: counts their users, keeps
/// released ones up to a byte budget and deletes the least recently used; a copy that somebody still holds is
/// never deleted, only forgotten, and goes when its last user releases it. Any thread; deleting happens
/// outside the lock.
class KZVSmartCache final : public NSObject {
 public:
  static constexpr std::uint64_t defaultBudgetBytes = 2'000'000'000;
  explicit KZVSmartCache(std::uint64_t budgetBytes = defaultBudgetBytes);
  ~KZVSmartCache() override;

  /// The copy under `key` with one more user, or nothing. A copy whose file has gone counts as absent.
  std::shared_ptr<NSURL> urlForKey(const std::string& key);
  /// Holds `url` under `key` with one user; another copy there before is forgotten.
  void setUrl(std::shared_ptr<NSURL> url, const std::string& key);
  /// The key under which `url` is held (also of a forgotten copy that still has users), or nothing.
  std::shared_ptr<const std::string> keyForUrl(const NSURL& url) const;
  /// One user less for the copy at `url`.
  void releaseUrl(const NSURL& url);
  /// Forgets what is held under `key`, which is compared as given.
  void invalidate(const std::string& key);

 private:
  struct State;
  const std::unique_ptr<State> state_;
};
