#include <algorithm>
#include <random>

#include "core/StoppableCall.h"
#include "core/synced.h"
#include "filemanager/KZVDropboxFileManager.h"
#include "filemanager/RequestKeys.h"
#include "filemanager/UploadSource.h"
#include "foundation/FileVersion.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSRunLoop.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "sdk/DBError.h"
#include "support/AssociatedObjects.h"

namespace {

/// Smaller files go up in one request.
constexpr std::uint64_t singleRequestLimitBytes = 104'857'600;

using Contents = DBMetadata::Contents;

/// Where a child of this key stands in a listing, or would: listings are in the order of their keys.
Contents::const_iterator placeOf(const Contents& contents, const std::string& key) {
  return std::lower_bound(
      contents.begin(), contents.end(), key,
      [](const auto& child, const std::string& wanted) { return MetadataCache::keyOf(*child) < wanted; });
}

/// A file's record as one of the children of the folder at `folderPath`, in whose letter case listings show
/// it.
MetadataCache::Record childOf(const std::string& folderPath, const MetadataCache::Record& file) {
  if (deletingLastPathComponent(file->path()) == folderPath) return file;
  DBMetadata::Fields fields = file->fields();
  fields.folderPath = std::make_shared<const std::string>(folderPath);
  return std::make_shared<const DBMetadata>(std::move(fields));
}

/// The same listing with `child` in its place.
MetadataCache::Record listingWith(const DBMetadata& folder, const MetadataCache::Record& child) {
  const Contents& contents = *folder.contents();
  const std::string key = MetadataCache::keyOf(*child);
  const auto place = placeOf(contents, key);
  auto changed = std::make_shared<Contents>();
  changed->reserve(contents.size() + 1);
  changed->assign(contents.begin(), place);
  changed->push_back(child);
  const bool replaces = place != contents.end() && MetadataCache::keyOf(**place) == key;
  changed->insert(changed->end(), replaces ? place + 1 : place, contents.end());
  DBMetadata::Fields fields = folder.fields();
  fields.contents = std::move(changed);
  return std::make_shared<DBMetadata>(std::move(fields));
}

std::optional<std::string> storedText(const DBRestClient& client, const NSString& key) {
  const id stored = objForKey(client, key);
  const std::string* text = textOf(stored);
  return text ? std::optional(*text) : std::nullopt;
}

NSErrorRef changedError(const std::string& path) {
  return NSError::withText(DBErrorDomain, DBErrorFileChanged,
                           "Could not upload \"" + path + "\": the file changed during the upload.",
                           {{DBErrorPathKey, str(path)}});
}

bool hasCode(const NSErrorRef& error, int code) {
  return error && error->domain() == DBErrorDomain && error->code() == code;
}

using std::chrono::milliseconds;

/// A wait of up to twice `base`, at random, so that several uploads do not continue at the same moment.
milliseconds spread(milliseconds base) {
  thread_local std::minstd_rand generator(std::random_device{}());
  return base + milliseconds(std::uniform_int_distribution<std::int64_t>(0, base.count())(generator));
}

/// The pause before a chunk is sent again that failed after `failures` others: none the first time, when most
/// often only an answer was lost; then longer and longer.
milliseconds pauseAfter(std::int64_t failures) {
  return failures == 0 ? milliseconds(0) : spread(milliseconds(50) * (1LL << failures));
}

}  // namespace

KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::uploadFile(const NSURL& local,
                                                                     const std::string& toPath,
                                                                     const WriteBase& base,
                                                                     const ProgressCallback& progress,
                                                                     NSErrorRef* error) {
  clearLastDeltaDate();
  bool isKnown = false;
  auto parentRev = parentRevision(toPath, base, progress, isKnown, error);
  if (!isKnown) return nullptr;
  constexpr int maxTries = 2;
  std::string target = toPath;
  for (int tries = 1;; ++tries) {
    NSErrorRef reason;
    const auto source = UploadSource::open(local.path(), progress, &reason);
    MetadataRef record = source ? sendFile(*source, target, parentRev, progress, &reason) : nullptr;
    const bool hasChanged = record ? source->hasChanged() : hasCode(reason, DBErrorFileChanged);
    if (record && !hasChanged) return record;
    const bool isLarge = source && source->sizeBytes() >= singleRequestLimitBytes;
    const bool isDamaged = isLarge && hasCode(reason, DBErrorInvalidResponse);
    if (tries == maxTries || !(hasChanged || isDamaged)) {
      setError(error, record ? changedError(local.path()) : reason);
      return nullptr;
    }
    if (!record) {
      const id damagedRev = reason->detail(DBErrorStoredRevKey);
      if (const std::string* rev = textOf(damagedRev)) parentRev = *rev;
      continue;
    }
    // What was stored is whole, but out of date: it is what the next version replaces.
    target = record->path();
    parentRev = record->rev();
  }
}

/// One try of an upload.
KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::sendFile(
    const UploadSource& source, const std::string& toPath, const std::optional<std::string>& parentRev,
    const ProgressCallback& progress, NSErrorRef* error) {
  const auto request = [=, localPath = source.path(), version = source.version(),
                        isSmall = source.sizeBytes() < singleRequestLimitBytes](DBRestClient& client) {
    if (isSmall) {
      client.uploadFile(lastPathComponent(toPath), deletingLastPathComponent(toPath), parentRev, localPath);
      return;
    }
    setObj(client, str(localPath), KZVDFMUploadLocalPathKey());
    setObj(client, str(version), KZVDFMUploadLocalVersionKey());
    setObj(client, str(toPath), KZVDFMUploadRemotePathKey());
    setObj(client, parentRev ? str(*parentRev) : nullptr, KZVDFMUploadParentRevKey());
    client.uploadFileChunk(std::nullopt, 0, localPath);
  };
  MetadataRef record = as<DBMetadata>(requestOnFreshClient(progress, request, error));
  if (record) {
    noteUploaded(MetadataCache::keyOf(toPath), record);
  } else {
    // The service may have stored it all the same, and only its answer was lost or not waited for.
    clearLastDeltaDate();
    forget(toPath);
  }
  return record;
}

/// The revision that an upload to `path` replaces, or nothing for a new file. `isKnown` turns false, with the
/// error, when the service could not say: sending anyway might leave the user with a second copy.
std::optional<std::string> KZVDropboxFileManager::parentRevision(const std::string& path,
                                                                 const WriteBase& base,
                                                                 const ProgressCallback& progress,
                                                                 bool& isKnown, NSErrorRef* error) {
  constexpr std::int64_t notFound = 404;
  isKnown = true;
  if (base.kind == WriteBase::Kind::nothing) return std::nullopt;
  if (base.kind == WriteBase::Kind::revision) return base.revision;
  MetadataRef record;
  if (const auto known = knownRecord(MetadataCache::keyOf(path))) {
    record = *known;
  } else {
    NSErrorRef reason;
    record = metadata(path, progress, &reason);
    if (reason && reason->code() != notFound) {
      isKnown = false;
      setError(error, reason);
    }
  }
  if (!record || record->rev().empty()) return std::nullopt;
  return record->rev();
}

std::optional<std::string> KZVDropboxFileManager::knownRevision(const std::string& path) const {
  const MetadataRef record = knownRecord(MetadataCache::keyOf(path)).value_or(nullptr);
  return record && !record->rev().empty() ? std::optional(record->rev()) : std::nullopt;
}

std::optional<KZVDropboxFileManager::MetadataRef> KZVDropboxFileManager::knownRecord(
    const std::string& key) const {
  return synced(*metaCache, [&]() -> std::optional<MetadataRef> {
    if (MetadataRef record = metaCache->find(key)) return record;
    const MetadataRef folder = metaCache->find(deletingLastPathComponent(key));
    if (!folder || !folder->contents()) return std::nullopt;
    const auto place = placeOf(*folder->contents(), key);
    if (place == folder->contents()->end() || MetadataCache::keyOf(**place) != key) return MetadataRef();
    return *place;
  });
}

// The folder's listing is mended rather than dropped, so that a thousand uploads into one folder need not ask
// for a thousand parent revisions.
void KZVDropboxFileManager::noteUploaded(const std::string& askedKey, const MetadataRef& record) {
  const std::string key = MetadataCache::keyOf(*record);
  const std::string parent = deletingLastPathComponent(key);
  if (key != askedKey)
    forget(askedKey);  // a copy beside it: what was cached of the path asked for is out of date
  Changes replaced;
  const bool isMended = synced(*metaCache, [&] {
    const auto files = metaCache->removeSubtree(key);
    replaced.files.insert(files.begin(), files.end());
    replaced.files.insert(key);
    const MetadataRef folder = metaCache->find(parent);
    if (!folder || !folder->contents()) return false;
    metaCache->remove(parent);  // a fetch of it that is under way is out of date
    const MetadataRef child = childOf(folder->path(), record);
    metaCache->store(parent, listingWith(*folder, child));
    metaCache->store(key, child);
    return true;
  });
  reportOwnChanges(std::move(replaced));
  if (isMended) return;
  forget(key);
  synced(*metaCache, [&] { metaCache->store(key, record); });
}

void KZVDropboxFileManager::uploadProgress(DBRestClient& client, double fraction,
                                           const std::string& /*destinationPath*/,
                                           const std::string& /*localPath*/) {
  reportProgress(client, fraction);
}

void KZVDropboxFileManager::uploadedFileChunk(DBRestClient& client, const std::string& uploadId,
                                              std::uint64_t newOffset, const std::string& localPath,
                                              NSDate::Time /*expires*/) {
  setObj(client, nullptr, KZVDFMUploadWaitKey());
  NSErrorRef error;
  // Each chunk opens the file anew: they belong together only as long as it is the same version.
  const auto version = storedText(client, KZVDFMUploadLocalVersionKey());
  if (version && fileVersion(localPath, &error) != version) {
    finish(client, nullptr, error ? error : changedError(localPath));
    return;
  }
  const auto sizeBytes = NSFileManager::defaultManager().fileSize(localPath, &error);
  if (!sizeBytes) {
    finish(client, nullptr, error);
    return;
  }
  if (newOffset < *sizeBytes) {
    client.uploadFileChunk(uploadId, newOffset, localPath);
    return;
  }
  const auto remotePath = storedText(client, KZVDFMUploadRemotePathKey());
  if (!remotePath) {
    finish(client, nullptr, std::make_shared<NSError>(std::string(DBErrorDomain), DBErrorLocalFile));
    return;
  }
  client.uploadFileFromUploadId(lastPathComponent(*remotePath), deletingLastPathComponent(*remotePath),
                                storedText(client, KZVDFMUploadParentRevKey()), uploadId);
}

// Failures are counted over the whole upload and never forgotten after a chunk that worked, on purpose: a
// connection that drops every other chunk must not keep an upload busy for hours. A request to wait is no
// failure; it ends the upload when the service has not taken a chunk for maxWait.
void KZVDropboxFileManager::uploadFileChunkFailedWithError(DBRestClient& client, const NSErrorRef& error) {
  const auto counted = as<NSNumber>(objForKey(client, KZVDFMErrorCountKey()));
  const std::int64_t failures = counted ? counted->int64Value() : 0;
  const auto localPath = storedText(client, KZVDFMUploadLocalPathKey());
  const id uploadId = error->detail(DBErrorUploadIdKey);
  const auto offset = as<NSNumber>(error->detail(DBErrorOffsetKey));
  const bool canResume = textOf(uploadId) && offset && localPath;
  const auto pause = canResume ? pauseBeforeResuming(client, error, failures) : std::nullopt;
  if (!pause) {
    finish(client, nullptr, error);
    return;
  }
  const auto resume = [path = *localPath, session = *textOf(uploadId),
                       from = static_cast<std::uint64_t>(offset->int64Value())](DBRestClient& started) {
    started.uploadFileChunk(session, from, path);
  };
  if (pause->count() == 0) return resume(client);
  const auto resumeUnlessEnded = [weak = client.weak_from_this(), resume](NSTimer& /*timer*/) {
    const ClientRef running = weak.lock();
    if (running && !objForKey(*running, KZVDFMErrorKey())) resume(*running);
  };
  dropboxThread()->runLoop()->addTimer(std::make_shared<NSTimer>(*pause, resumeUnlessEnded, false));
}

/// How long to wait before a failed chunk is sent again; nothing when the upload ends instead.
std::optional<milliseconds> KZVDropboxFileManager::pauseBeforeResuming(DBRestClient& client,
                                                                       const NSErrorRef& error,
                                                                       std::int64_t failures) {
  using std::chrono::seconds;
  constexpr seconds maxWait{300};
  if (const auto requested = as<NSNumber>(error->detail(DBErrorRetryAfterKey))) {
    const auto stored = as<NSNumber>(objForKey(client, KZVDFMUploadWaitKey()));
    const milliseconds waited(stored ? stored->int64Value() : 0);
    const seconds wait = std::clamp(seconds(requested->int64Value()), seconds(0), maxWait + seconds(1));
    if (wait > maxWait - waited) return std::nullopt;
    // "0 seconds" must become neither a busy loop nor an endless one.
    const auto pause = wait + spread(std::clamp<milliseconds>(waited / 2, milliseconds(50), seconds(5)));
    setObj(client, NSNumber::withInt((waited + pause).count()), KZVDFMUploadWaitKey());
    return pause;
  }
  if (failures >= DROPBOX_MAX_UPLOAD_FAILURES) return std::nullopt;
  setObj(client, NSNumber::withInt(failures + 1), KZVDFMErrorCountKey());
  return pauseAfter(failures);
}

void KZVDropboxFileManager::uploadFileChunkProgress(DBRestClient& client, double fraction,
                                                    const std::string& /*uploadId*/, std::uint64_t offset,
                                                    const std::string& localPath) {
  const auto sizeBytes = NSFileManager::defaultManager().fileSize(localPath).value_or(0);
  if (sizeBytes == 0) return;
  // The client layer reports the fraction of this chunk; the last chunk of a file may be shorter.
  const double chunkBytes = std::min(static_cast<double>(DBRestClient::uploadChunkSizeBytes()),
                                     static_cast<double>(sizeBytes) - static_cast<double>(offset));
  const double sentBytes = static_cast<double>(offset) + fraction * std::max(chunkBytes, 0.0);
  reportProgress(client, std::min(sentBytes / static_cast<double>(sizeBytes), 1.0));
}
