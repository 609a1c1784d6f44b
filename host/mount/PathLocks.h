#pragma once
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// Keeps apart what must not happen to one path at the same time: a transfer that needs its path to stay what
/// it is, and a change that moves or removes a whole subtree. Any thread.
class PathLocks {
 public:
  enum class Kind {
    item,    // the path must stay; any number of these go together
    subtree  // the path and everything below it may change: alone
  };
  /// `key` is a path of name keys, "/a/b".
  struct Claim {
    std::string key;
    Kind kind = Kind::item;
  };

  /// Claims held until this goes.
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

  /// Waits, without a time limit, until all `claims` are free together. A thread that holds some must not
  /// ask for more.
  Hold hold(std::vector<Claim> claims);
  /// The same, until `isInterrupted` (asked now and then) says so: then nothing.
  std::optional<Hold> hold(std::vector<Claim> claims, const std::function<bool()>& isInterrupted);

 private:
  bool isFree(const std::vector<Claim>& claims) const;
  void release(Hold::Place place);

  std::mutex mutex_;
  std::condition_variable released_;
  std::list<std::vector<Claim>> held_;  // guarded by mutex_
};
