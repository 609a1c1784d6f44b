#include "core/synced.h"
#include "filemanager/KZVDropboxFileManager.h"
#include "foundation/DispatchQueue.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"

void KZVDropboxFileManager::loadDelta(NSErrorRef* error) {
  if (deltaCursor()) {
    runDelta(error);
  } else {
    runFirstDeltaInBackground();
  }
}

void KZVDropboxFileManager::loadDeltaNow(NSErrorRef* error) {
  clearLastDeltaDate();
  loadDelta(error);
}

void KZVDropboxFileManager::runFirstDeltaInBackground() {
  {
    const std::lock_guard lock(deltaStateMutex_);
    if (isFirstRunUnderWay_.exchange(true)) return;  // a second one would find nothing left to do
  }
  DispatchQueue::global().async([self = shared_from_this()] {
    self->runDelta(nullptr);
    {
      const std::lock_guard lock(self->deltaStateMutex_);
      self->isFirstRunUnderWay_ = false;
    }
    self->firstRunEnded_.notify_all();
  });
}

void KZVDropboxFileManager::runDelta(NSErrorRef* error) {
  synced(*deltaClient, [&] {
    if (isDeltaRecent()) return;
    {
      const std::lock_guard lock(deltaStateMutex_);
      isDateClearedInRun_ = false;
    }
    const ClientRef client = prepare(deltaClient);
    start(client, [cursor = deltaCursor()](DBRestClient& delta) { delta.loadDelta(cursor); });
    wait(*client, error);
  });
}

bool KZVDropboxFileManager::isDeltaRecent() const {
  const std::lock_guard lock(deltaStateMutex_);
  if (!lastDeltaDate) return false;
  // The calendar clock and an absolute value: after the machine slept, or its clock was put back, the next
  // run is due.
  const std::chrono::duration<double> age =
      std::chrono::abs(std::chrono::system_clock::now() - *lastDeltaDate);
  return age.count() < deltaInterval();
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
  if (!isDateClearedInRun_) lastDeltaDate = std::chrono::system_clock::now();
}

void KZVDropboxFileManager::loadedDeltaEntries(DBRestClient& client, const std::vector<DBDeltaEntry>& entries,
                                               bool reset, const std::string& cursor, bool hasMore) {
  const bool hadCursor = deltaCursor().has_value();
  Changes changes;
  if (reset) applyReset(hadCursor, changes);
  for (const DBDeltaEntry& entry : entries) applyEntry(entry, hadCursor, changes);
  reportChanges(std::move(changes));
  if (hasMore) {
    client.loadDelta(cursor);
    return;
  }
  noteDeltaRunCompleted(cursor);
  finish(client, str(cursor), nullptr);
}

void KZVDropboxFileManager::loadDeltaFailedWithError(DBRestClient& client, const NSErrorRef& error) {
  finish(client, nullptr, error);  // cursor and date stay: the next run asks again from the same place
}

// What was known before the new cursor may have changed unseen: nothing of it is kept, neither here nor as
// local copies.
void KZVDropboxFileManager::applyReset(bool hadCursor, Changes& changes) {
  const auto files = synced(*metaCache, [&] { return metaCache->removeAll(); });
  changes.files.insert(files.begin(), files.end());
  if (hadCursor) changes.folders.insert("/");
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
