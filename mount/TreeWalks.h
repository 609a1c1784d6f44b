#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "core/FSPlugin.h"
#include "foundation/Mutex.h"
#include "mount/Result.h"

namespace kzv::mount {

/// Notices programs that walk through a tree, such as find and cp -r: one thread opens one sub-folder of a
/// folder after another. The volume then loads everything below that folder at once, instead of folder by
/// folder. Any thread.
class TreeWalks {
 public:
  using Clock = std::chrono::steady_clock;
  /// A larger tree is listed folder by folder: the walk may end long before it has been loaded.
  static constexpr std::size_t maxItems = 50'000;

  /// @param window  two sub-folders opened within this time are a walk.
  TreeWalks(std::shared_ptr<FSPlugin> volume, Clock::duration window);

  /// To be called when a program opens the folder at `path` and the volume will be asked to list it. Blocks
  /// while the tree that it belongs to is being loaded.
  /// @param thread  the program's thread, as the kernel numbers it: two programs that open a folder each are
  /// no
  ///                walk.
  void beforeListing(const std::string& path, std::int64_t thread, const IsInterrupted& isInterrupted);

 private:
  struct Opened {
    std::string folder;
    std::int64_t thread;
    Clock::time_point time;
  };
  /// The folder to load because of this opening; empty: none. Waits for the one that is being loaded.
  std::string treeToLoad(const std::string& path, std::int64_t thread, const IsInterrupted& isInterrupted);
  bool isLoading(const std::string& path) const KZV_REQUIRES(mutex_);
  void forgetOld(Clock::time_point now) KZV_REQUIRES(mutex_);

  const std::shared_ptr<FSPlugin> volume_;
  const Clock::duration window_;
  Mutex mutex_;
  Condition loaded_;
  std::map<std::string, Opened> lastOpened_ KZV_GUARDED_BY(mutex_);           // by the folder above
  std::set<std::string> loading_ KZV_GUARDED_BY(mutex_);                      // in flight now
  std::map<std::string, Clock::time_point> tooLarge_ KZV_GUARDED_BY(mutex_);  // and when that was found
};

}  // namespace kzv::mount
