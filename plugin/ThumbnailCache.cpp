#include "plugin/ThumbnailCache.h"

#include "core/synced.h"
#include "foundation/NSString.h"
#include "foundation/NSThread.h"

void ThumbnailCache::waitWhileFetching(const std::string& key) const {
  while (synced(*this, [&] {
    const auto found = entries_.find(key);
    return found != entries_.end() && textOf(found->second) != nullptr;
  })) {
    NSThread::sleepForTimeInterval(std::chrono::milliseconds(100));
  }
}

ThumbnailCache::Claim ThumbnailCache::claim(const std::string& key) {
  return synced(*this, [&]() -> Claim {
    const auto [entry, isNew] = entries_.try_emplace(key, nullptr);
    if (!isNew) return {as<NSURL>(entry->second), false};
    entry->second = str("");
    return {nullptr, true};
  });
}

void ThumbnailCache::store(const std::string& key, std::shared_ptr<NSURL> url) {
  synced(*this, [&] { entries_[key] = std::move(url); });
}

void ThumbnailCache::remove(const std::string& key) {
  synced(*this, [&] { entries_.erase(key); });
}
