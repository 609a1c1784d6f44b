#include "mount/TreeWalks.h"

#include <algorithm>
#include <utility>

#include "foundation/Paths.h"
#include "mount/VolumePath.h"

using namespace std::chrono_literals;

namespace kzv::mount {

TreeWalks::TreeWalks(std::shared_ptr<FSPlugin> volume, Clock::duration window)
    : volume_(std::move(volume)), window_(window) {}

void TreeWalks::beforeListing(const std::string& path, std::int64_t thread,
                              const IsInterrupted& isInterrupted) {
  const std::string top = treeToLoad(path, thread, isInterrupted);
  if (top.empty()) return;
  const bool isWhole = volume_->prepareToListTree(top, maxItems);
  {
    const MutexLock lock(mutex_);
    loading_.erase(top);
    if (!isWhole) tooLarge_[top] = Clock::now();
  }
  loaded_.notifyAll();
}

std::string TreeWalks::treeToLoad(const std::string& path, std::int64_t thread,
                                  const IsInterrupted& isInterrupted) {
  constexpr auto interruptionCheck = 50ms;
  if (path == "/") return {};
  MutexLock lock(mutex_);
  if (isLoading(path)) {
    while (isLoading(path) && !isInterrupted()) loaded_.waitUntil(lock, Clock::now() + interruptionCheck);
    return {};
  }
  const auto now = Clock::now();
  forgetOld(now);
  std::string above = deletingLastPathComponent(path);
  const auto [last, isFirst] = lastOpened_.try_emplace(above, Opened{path, thread, now});
  const bool isWalk = !isFirst && last->second.folder != path && last->second.thread == thread;
  if (!isWalk || tooLarge_.contains(above)) {
    last->second = {path, thread, now};
    return {};
  }
  lastOpened_.erase(last);
  loading_.insert(above);
  return above;
}

bool TreeWalks::isLoading(const std::string& path) const {
  return std::any_of(loading_.begin(), loading_.end(),
                     [&](const std::string& top) { return isAtOrBelow(path, top); });
}

void TreeWalks::forgetOld(Clock::time_point now) {
  constexpr auto tooLargeFor = 10min;
  std::erase_if(lastOpened_, [&](const auto& opened) { return now - opened.second.time > window_; });
  std::erase_if(tooLarge_, [&](const auto& found) { return now - found.second > tooLargeFor; });
}

}  // namespace kzv::mount
