#include "mount/VolumeCalls.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "mount/MountErrors.h"

namespace kzv::mount {

VolumeCalls::VolumeCalls(std::shared_ptr<FSPlugin> volume, IsLinked isLinked,
                         std::vector<std::chrono::milliseconds> retryDelays)
    : volume_(std::move(volume)), isLinked_(std::move(isLinked)), retryDelays_(std::move(retryDelays)) {}

void VolumeCalls::stop() {
  isStopping_ = true;
  { const MutexLock lock(mutex_); }  // no thread is between checking isStopping_ and waiting
  stopped_.notifyAll();
}

bool VolumeCalls::pause(std::chrono::milliseconds time, const IsInterrupted& isInterrupted) {
  constexpr std::chrono::milliseconds step{50};  // how soon an interruption is noticed
  const auto end = std::chrono::steady_clock::now() + time;
  MutexLock lock(mutex_);
  while (!isStopping_ && !isInterrupted() && std::chrono::steady_clock::now() < end)
    stopped_.waitUntil(lock, std::min(end, std::chrono::steady_clock::now() + step),
                       [&] { return isStopping_.load(); });
  return !isStopping_ && !isInterrupted();
}

int VolumeCalls::attempt(const IsInterrupted& isInterrupted, const std::function<bool(NSErrorRef*)>& call) {
  for (auto delay = retryDelays_.begin();; ++delay) {
    NSErrorRef error;
    if (call(&error)) return 0;
    if (!isTransient(error) || delay == retryDelays_.end()) return errnoFor(error);
    if (!pause(*delay, isInterrupted)) return isStopping_ ? EIO : EINTR;
  }
}

/// Failure without an error means that there is no such item, or that the account was unlinked.
int VolumeCalls::errnoFor(const NSErrorRef& error) const {
  return !error && isLinked_ && !isLinked_() ? EACCES : errnoOf(error);
}

int VolumeCalls::remove(const std::string& path, const IsInterrupted& isInterrupted) {
  const int reason =
      attempt(isInterrupted, [&](NSErrorRef* error) { return volume_->removeItemAtPath(path, error); });
  // Another device has removed it, or an earlier attempt whose answer was lost.
  return reason == ENOENT ? 0 : reason;
}

int VolumeCalls::move(const std::string& from, const std::string& to, const IsInterrupted& isInterrupted) {
  bool isRepeated = false;
  return attempt(isInterrupted, [&](NSErrorRef* error) {
    if (volume_->moveFromPath(from, to, nullptr, {}, error)) return true;
    // The earlier attempt may have succeeded, with only its answer lost.
    const bool wasDone = isRepeated && error && errnoOf(*error) == ENOENT && volume_->isExists(to);
    isRepeated = true;
    return wasDone;
  });
}

Result<FSItems> VolumeCalls::list(const std::string& folder, const IsInterrupted& isInterrupted) {
  FSItems items;
  const int reason = attempt(isInterrupted, [&](NSErrorRef* error) {
    auto listed = volume_->contentAtPath(folder, false, true, error);
    if (!listed) return false;
    items = *std::move(listed);
    return true;
  });
  return {std::move(items), reason};
}

bool VolumeCalls::isReplaced(const std::string& path, const std::string& version) {
  if (version.empty()) return false;
  volume_->pollForChanges();
  const auto item = volume_->itemAtPath(path, nullptr);
  return item && !item->isDirectory() && item->version() != version;
}

}  // namespace kzv::mount
