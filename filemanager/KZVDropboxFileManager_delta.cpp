#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "core/DLog.h"
#include "core/synced.h"
#include "filemanager/KZVDropboxFileManager.h"
#include "foundation/DispatchQueue.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "sdk/DBError.h"

using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto failureLineInterval = 10min;

/// How long to leave the service alone after so many failures in a row: longer each time, until the timer's
/// own rhythm is slow enough, but never less than the service asks for.
Clock::duration waitAfterFailure(int failures, const NSError& error, double deltaInterval) {
  constexpr int doublings = 10;
  constexpr double timerTolerance = 0.9;  // the timer's next tick must not come just too early
  constexpr std::int64_t longestAsked = 3600;
  const double growing =
      std::min(double(1 << std::min(failures - 1, doublings)), deltaInterval * timerTolerance);
  const auto asked = as<NSNumber>(error.detail(DBErrorRetryAfterKey));
  const auto askedSeconds = asked ? std::clamp<std::int64_t>(asked->int64Value(), 0, longestAsked) : 0;
  const std::chrono::duration<double> wait(std::max(growing, static_cast<double>(askedSeconds)));
  return std::chrono::duration_cast<Clock::duration>(wait);
}

/// Whether another cursor might help: not where the connection, the account's authorization or the service's
/// load is the reason.
bool mayBeTheCursors(const NSError& error) {
  constexpr std::int64_t notAuthorized = 401;
  constexpr std::int64_t askedToWait = 503;
  const std::int64_t code = error.code();
  return code > 0 && code != notAuthorized && code != askedToWait && code != DBErrorNotLinked &&
         code != DBErrorServiceAddress;
}

}  // namespace

struct KZVDropboxFileManager::DeltaRun {
  explicit DeltaRun(std::shared_ptr<KZVDropboxFileManager> of) : manager(std::move(of)) {}
  DeltaRun(const DeltaRun&) = delete;
  DeltaRun& operator=(const DeltaRun&) = delete;
  ~DeltaRun() {
    if (hasBegun) manager->endDeltaRun();
  }
  const std::shared_ptr<KZVDropboxFileManager> manager;
  bool hasBegun = false;
};

void KZVDropboxFileManager::loadDelta(NSErrorRef* error) {
  DeltaRunRef run = beginDeltaRun(RunWhen::ifDue);
  if (!run) return;
  if (deltaCursor()) {
    runDelta(*run, error);
  } else {
    runDeltaInBackground(std::move(run));
  }
}

void KZVDropboxFileManager::loadDeltaNow(NSErrorRef* error) {
  const auto run = std::make_shared<DeltaRun>(shared_from_this());
  {
    std::unique_lock lock(deltaStateMutex_);
    // The run under way may have asked the service before this call: the one after it counts, whoever makes
    // it.
    const std::uint64_t wanted = deltaRuns_ + 1;
    deltaRunEnded_.wait(lock, [&] { return !isDeltaRunning_ || deltaRuns_ > wanted; });
    if (deltaRuns_ >= wanted) return;
    beginDeltaRunLocked(*run);
  }
  runDelta(*run, error);
}

void KZVDropboxFileManager::pollOnTimer() {
  if (DeltaRunRef run = beginDeltaRun(RunWhen::onTimer)) runDeltaInBackground(std::move(run));
}

void KZVDropboxFileManager::fetchFirstCursor() {
  if (!deltaCursor()) pollOnTimer();
}

bool KZVDropboxFileManager::waitForFirstCursor() {
  constexpr auto longestWait = 2s;  // one that does not come soon must not keep a listing waiting
  fetchFirstCursor();
  std::unique_lock lock(deltaStateMutex_);
  deltaRunEnded_.wait_for(lock, longestWait, [&] { return lastDeltaCursor || !isDeltaRunning_; });
  return lastDeltaCursor.has_value();
}

void KZVDropboxFileManager::pollNow() {
  auto run = std::make_shared<DeltaRun>(shared_from_this());
  {
    const std::lock_guard lock(deltaStateMutex_);
    if (isDeltaRunning_) {
      isPollWanted_ = true;  // it may have asked the service too early
      return;
    }
    beginDeltaRunLocked(*run);
  }
  runDeltaInBackground(std::move(run));
}

KZVDropboxFileManager::DeltaRunRef KZVDropboxFileManager::beginDeltaRun(RunWhen when) {
  auto run = std::make_shared<DeltaRun>(shared_from_this());
  const std::lock_guard lock(deltaStateMutex_);
  if (isDeltaRunning_) return nullptr;
  if (when == RunWhen::ifDue && isDeltaRecentLocked()) return nullptr;
  if (Clock::now() < earliestNextRun_) return nullptr;
  beginDeltaRunLocked(*run);
  return run;
}

void KZVDropboxFileManager::beginDeltaRunLocked(DeltaRun& run) {
  isDeltaRunning_ = run.hasBegun = true;
  isDateClearedInRun_ = false;
  ++deltaRuns_;
}

void KZVDropboxFileManager::endDeltaRun() {
  bool isAnotherWanted = false;
  {
    const std::lock_guard lock(deltaStateMutex_);
    isDeltaRunning_ = false;
    isAnotherWanted = std::exchange(isPollWanted_, false);
  }
  deltaRunEnded_.notify_all();
  if (isAnotherWanted) pollNow();
}

void KZVDropboxFileManager::runDelta(const DeltaRun& /*run*/, NSErrorRef* error) {
  NSErrorRef reason;
  synced(*deltaClient, [&] {
    const ClientRef client = prepare(deltaClient);
    start(client, [cursor = cursorToAskFrom()](DBRestClient& delta) { delta.loadDelta(cursor); });
    wait(*client, &reason);
  });
  if (!reason) return;
  noteDeltaRunFailed(reason);
  setError(error, reason);
}

// The run is claimed before it is queued, so that a pool whose workers are all busy does not fill up with
// polls.
void KZVDropboxFileManager::runDeltaInBackground(DeltaRunRef run) {
  DispatchQueue::global().async(
      [self = shared_from_this(), run = std::move(run)] { self->runDelta(*run, nullptr); });
}

bool KZVDropboxFileManager::isDeltaRecentLocked() const {
  if (!lastDeltaDate) return false;
  // The calendar clock and an absolute value: after the machine slept, or its clock was put back, the next
  // run is due.
  const std::chrono::duration<double> age =
      std::chrono::abs(std::chrono::system_clock::now() - *lastDeltaDate);
  return age.count() < deltaInterval();
}

std::optional<std::string> KZVDropboxFileManager::cursorToAskFrom() const {
  const std::lock_guard lock(deltaStateMutex_);
  return failuresOfCursor_ < maxFailuresOfCursor ? lastDeltaCursor : std::nullopt;
}

void KZVDropboxFileManager::noteDeltaRunFailed(const NSErrorRef& error) {
  const auto now = Clock::now();
  bool isNews = false;
  int failures = 0;
  {
    const std::lock_guard lock(deltaStateMutex_);
    failures = ++failuresInARow_;
    earliestNextRun_ = now + waitAfterFailure(failures, *error, deltaInterval());
    // When not even a new cursor can be had, it is the service that is in trouble: the old one gets another
    // chance.
    if (failuresOfCursor_ == maxFailuresOfCursor)
      failuresOfCursor_ = 0;
    else if (lastDeltaCursor && mayBeTheCursors(*error))
      ++failuresOfCursor_;
    // One failure is no news, since most pass by themselves; after that a line now and then.
    isNews = failures > 1 && now >= nextFailureLine_;
    if (isNews) nextFailureLine_ = now + failureLineInterval;
  }
  const std::string line = fmt::format("changes made elsewhere are not seen ({} failures in a row): {}",
                                       failures, error->localizedDescription());
  isNews ? DLogWarning(line, "loadDelta") : DLog(line, "loadDelta");
}

// Does not wait for a run that is under way, since the beginning of a transfer could not be stopped then; the
// run leaves the date alone when it ends.
void KZVDropboxFileManager::clearLastDeltaDate() {
  const std::lock_guard lock(deltaStateMutex_);
  lastDeltaDate.reset();
  isDateClearedInRun_ = true;
}

std::optional<std::string> KZVDropboxFileManager::deltaCursor() const {
  const std::lock_guard lock(deltaStateMutex_);
  return lastDeltaCursor;
}

void KZVDropboxFileManager::noteDeltaRunCompleted(const std::string& cursor) {
  const std::lock_guard lock(deltaStateMutex_);
  lastDeltaCursor = cursor;
  failuresInARow_ = failuresOfCursor_ = 0;
  earliestNextRun_ = {};
  if (!isDateClearedInRun_) lastDeltaDate = std::chrono::system_clock::now();
}

void KZVDropboxFileManager::loadedDeltaEntries(DBRestClient& client, const std::vector<DBDeltaEntry>& entries,
                                               bool reset, const std::string& cursor, bool hasMore) {
  const bool hadCursor = deltaCursor().has_value();
  Changes changes;
  if (reset) applyReset(hadCursor, changes);
  for (const DBDeltaEntry& entry : entries) applyEntry(entry, hadCursor, changes);
  reportChanges(std::move(changes));
  hasRunBroughtChanges_ |= reset || !entries.empty();
  if (hasMore) {
    client.loadDelta(cursor);
    return;
  }
  noteDeltaRunCompleted(cursor);
  notifyLongPoll(cursor);
  finish(client, str(cursor), nullptr);
}

void KZVDropboxFileManager::loadDeltaFailedWithError(DBRestClient& client, const NSErrorRef& error) {
  notifyLongPoll(std::nullopt);
  finish(client, nullptr, error);  // cursor and date stay as they are
}

// What was known before the new cursor may have changed unseen: nothing of it is kept, neither here nor as
// local copies, and what was shown of it has to be looked at again. Before the first cursor nothing was kept,
// but something may have been shown.
void KZVDropboxFileManager::applyReset(bool hadCursor, Changes& changes) {
  bool wasShown = hadCursor;
  synced(*metaCache, [&] {
    const auto files = metaCache->removeAll();
    changes.files.insert(files.begin(), files.end());
    if (metaCache->startKeeping()) wasShown = true;
  });
  if (wasShown) changes.folders.insert("/");
}

void KZVDropboxFileManager::applyEntry(const DBDeltaEntry& entry, bool hadCursor, Changes& changes) {
  const std::string path = entry.lowercasePath.empty() ? "/" : entry.lowercasePath;
  const std::string parent = deletingLastPathComponent(path);
  const MetadataRef& metadata = entry.metadata;
  synced(*metaCache, [&] {
    if (hadCursor) {
      metaCache->remove(parent);  // its listing no longer holds
      changes.folders.insert(parent);
    }
    const MetadataRef cached = metaCache->find(path);
    const bool isGone = !metadata || metadata->isDeleted();
    const bool changedKind = !isGone && cached && cached->isDirectory() != metadata->isDirectory();
    if (isGone || changedKind) {
      // The entry of a folder stands for everything below it. Local copies of what went are not served again
      // either, should a file of that name come back.
      const auto files = metaCache->removeSubtree(path);
      changes.files.insert(files.begin(), files.end());
    } else if (!metadata->isDirectory() && cached && cached->rev() != metadata->rev()) {
      metaCache->remove(path);  // makes a fetch of it that is under way stale
      metaCache->store(path, metadata);
      changes.files.insert(path);
    } else if (!cached) {
      metaCache->remove(path);  // for the fetch of it that may be under way
    }
  });
}
