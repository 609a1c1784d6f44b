#pragma once
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Mutex.h"

namespace kzv::mount {

/// Read-write locks on paths: transfers share a path, changes that move or remove a subtree lock it
/// exclusively. Any thread.
class PathLocks {
 public:
  enum class Kind {
    item,    // shared: the path must not be moved or removed
    subtree  // exclusive: the path and everything below it may be changed
  };
  /// `key` is a path of name keys, "/a/b".
  struct Claim {
    std::string key;
    Kind kind = Kind::item;
  };

  /// Claims that are held until this is destroyed.
  class Hold {
   public:
    Hold() = default;
    Hold(Hold&& other) noexcept;
    Hold& operator=(Hold&& other) noexcept;
    ~Hold();

   private:
    friend class PathLocks;
    using Place = std::list<std::vector<Claim>>::iterator;
    Hold(PathLocks& locks, Place place) : locks_(&locks), place_(place) {}
    PathLocks* locks_ = nullptr;
    Place place_;
  };

  /// Waits, without a time limit, until all `claims` can be held together. A thread that holds claims must
  /// not ask for more.
  Hold hold(std::vector<Claim> claims);
  /// The same, but returns nothing once `isInterrupted` (called every 50 ms) returns true.
  std::optional<Hold> hold(std::vector<Claim> claims, const std::function<bool()>& isInterrupted);

 private:
  bool isFree(const std::vector<Claim>& claims) const KZV_REQUIRES(mutex_);
  void release(Hold::Place place);

  Mutex mutex_;
  Condition released_;
  std::list<std::vector<Claim>> held_ KZV_GUARDED_BY(mutex_);
};

}  // namespace kzv::mount
