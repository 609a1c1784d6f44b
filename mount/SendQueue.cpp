#include "mount/SendQueue.h"

#include <algorithm>
#include <utility>

#include "foundation/NSThread.h"
#include "foundation/Paths.h"

namespace kzv::mount {

SendQueue::~SendQueue() { join(); }

void SendQueue::start(Sender& sender) {
  sender_ = &sender;
  thread_ = std::thread([this] {
    setCurrentThreadName("kzv-send");
    run();
  });
}

void SendQueue::stop() {
  {
    const MutexLock lock(mutex_);
    isStopping_ = true;
  }
  changed_.notifyAll();
}

void SendQueue::join() {
  stop();
  if (thread_.joinable()) thread_.join();
}

void SendQueue::add(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                    std::chrono::milliseconds delay) {
  {
    const MutexLock lock(mutex_);
    const bool isKnown = std::any_of(entries_.begin(), entries_.end(),
                                     [&](const Entry& entry) { return entry.file.content == content; });
    if (!isKnown) entries_.push_back({{node, content}, std::nullopt, Clock::now() + delay});
  }
  changed_.notifyAll();
}

void SendQueue::addLeftover(UploadJournal::Upload leftover) {
  {
    const MutexLock lock(mutex_);
    entries_.push_back({{}, std::move(leftover), Clock::now()});
  }
  changed_.notifyAll();
}

void SendQueue::run() {
  MutexLock lock(mutex_);
  while (!isStopping_) {
    const auto next = std::min_element(entries_.begin(), entries_.end(),
                                       [](const Entry& a, const Entry& b) { return a.due < b.due; });
    if (next == entries_.end()) {
      changed_.wait(lock, [this]() KZV_REQUIRES(mutex_) { return isStopping_ || !entries_.empty(); });
    } else if (const auto due = next->due; due > Clock::now()) {
      changed_.waitUntil(lock, due);
    } else if (next->leftover && !std::exchange(next->isFolderListed, true)) {
      // The listing makes it a file of the tree, which programs can use while it is uploaded.
      const std::string folder = deletingLastPathComponent(next->leftover->path);
      ++inFlight_;
      lock.unlock();
      sender_->listFolder(folder);
      lock.lock();
      --inFlight_;
    } else {
      Entry entry = std::move(*next);
      entries_.erase(next);
      ++inFlight_;
      lock.unlock();
      const bool isDone = send(entry);
      lock.lock();
      --inFlight_;
      if (!isDone) entries_.push_back(postponed(std::move(entry)));
      changed_.notifyAll();
    }
  }
}

SendQueue::Entry SendQueue::postponed(Entry entry) const {
  const auto delay = delays_.firstUploadRetry * (1 << std::min(entry.failures, 8));
  entry.due = Clock::now() + std::min(delay, delays_.longestUploadRetry);
  ++entry.failures;
  entry.isFolderListed = false;
  return entry;
}

bool SendQueue::send(const Entry& entry) {
  return entry.leftover ? sender_->sendLeftover(*entry.leftover)
                        : sender_->sendWaiting(entry.file.node, entry.file.content);
}

bool SendQueue::flush(std::chrono::milliseconds timeout) {
  MutexLock lock(mutex_);
  const auto now = Clock::now();
  for (Entry& entry : entries_) entry.due = now;
  changed_.notifyAll();
  changed_.waitFor(lock, timeout, [&]() KZV_REQUIRES(mutex_) {  // one attempt each: then none is due
    const bool isDue =
        std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.due <= now; });
    return isStopping_ || (!isDue && inFlight_ == 0);
  });
  return entries_.empty() && inFlight_ == 0;
}

void SendQueue::adoptLeftovers(
    const std::function<std::optional<File>(const UploadJournal::Upload&)>& adopt) {
  const MutexLock lock(mutex_);
  for (Entry& entry : entries_) {
    if (!entry.leftover) continue;
    auto file = adopt(*entry.leftover);
    if (!file) continue;
    entry.leftover.reset();
    entry.file = *std::move(file);
  }
}

bool SendQueue::hasLeftover(const std::function<bool(const UploadJournal::Upload&)>& matches) const {
  const MutexLock lock(mutex_);
  return std::any_of(entries_.begin(), entries_.end(),
                     [&](const Entry& entry) { return entry.leftover && matches(*entry.leftover); });
}

void SendQueue::changeLeftovers(const std::function<void(UploadJournal::Upload&)>& change) {
  const MutexLock lock(mutex_);
  for (Entry& entry : entries_)
    if (entry.leftover) change(*entry.leftover);
}

}  // namespace kzv::mount
