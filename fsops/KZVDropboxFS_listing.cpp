#include <algorithm>

#include "core/synced.h"
#include "foundation/Fatal.h"
#include "foundation/NSDate.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "foundation/Unicode.h"
#include "fsops/ServiceErrors.h"
#include "plugin/KZVDropboxFS.h"

namespace {

using MetadataRef = KZVDropboxFileManager::MetadataRef;

constexpr std::size_t maxEntriesOfTree = 1'000'000;  // takes about 600 MB

const id& constantString(std::string_view text) {
  static const auto& size = *new id(str(std::string(NSFileSize)));
  static const auto& date = *new id(str(std::string(NSFileModificationDate)));
  static const auto& type = *new id(str(std::string(NSFileType)));
  static const auto& directory = *new id(str(std::string(NSFileTypeDirectory)));
  static const auto& regular = *new id(str(std::string(NSFileTypeRegular)));
  if (text == NSFileSize) return size;
  if (text == NSFileModificationDate) return date;
  if (text == NSFileType) return type;
  return text == NSFileTypeDirectory ? directory : regular;
}

std::shared_ptr<NSDictionary> attributesOf(const DBMetadata& record) {
  NSDictionary::Entries entries;
  entries.reserve(3);
  entries.emplace_back(constantString(NSFileSize), NSNumber::withInt(record.totalBytes()));
  if (const auto date = record.lastModifiedDate()) {
    entries.emplace_back(constantString(NSFileModificationDate), std::make_shared<NSDate>(*date));
  }
  entries.emplace_back(constantString(NSFileType),
                       constantString(record.isDirectory() ? NSFileTypeDirectory : NSFileTypeRegular));
  return std::make_shared<NSDictionary>(std::move(entries));
}

}  // namespace

bool KZVDropboxFS::isExists(const std::string& path) { return attributesAtPath(path, nullptr) != nullptr; }

bool KZVDropboxFS::isReadable(const std::string& path) { return isExists(path); }

bool KZVDropboxFS::isWritable(const std::string& path) { return isExists(path); }

std::shared_ptr<NSDictionary> KZVDropboxFS::attributesAtPath(const std::string& path, NSErrorRef* error) {
  if (lastPathComponent(path) == "..") return attributesAtPath(deletingLastPathComponent(path), error);
  const MetadataRef record = requiredManager().metadata(path, ServiceErrors(error));
  if (!record || record->isDeleted()) return nullptr;
  return attributesOf(*record);
}

std::shared_ptr<FSItem> KZVDropboxFS::itemAtPath(const std::string& path, NSErrorRef* error) {
  if (lastPathComponent(path) == "..") return itemAtPath(deletingLastPathComponent(path), error);
  const MetadataRef record = requiredManager().metadata(path, ServiceErrors(error));
  return record && !record->isDeleted() ? itemFor(record) : nullptr;
}

// showHidden hides nothing, on purpose: the service knows no hidden items, and a name that begins with a dot
// is as much the user's file as any other.
std::optional<FSItems> KZVDropboxFS::contentAtPath(const std::string& path, bool recursive, bool showHidden,
                                                   NSErrorRef* error) {
  if (recursive) prepareToListTree(path, anyNumberOfItems);
  FSItems items;
  if (!appendContent(path, recursive, showHidden, error, items)) return std::nullopt;
  return items;
}

bool KZVDropboxFS::prepareToListTree(const std::string& path, std::size_t maxItems) {
  return requiredManager().loadTree(path, std::min(maxItems, maxEntriesOfTree));
}

bool KZVDropboxFS::appendContent(const std::string& path, bool recursive, bool showHidden, NSErrorRef* error,
                                 FSItems& items) {
  KZVDropboxFileManager& manager = requiredManager();
  manager.loadDelta();
  const MetadataRef folder = manager.metadata(path, ServiceErrors(error));
  if (!folder || folder->isDeleted() || !folder->isDirectory()) return false;
  const auto contents = required(folder->contents(), "a listed folder carries its contents");
  enterListing(folder);
  items.reserve(items.size() + contents->size());
  for (const MetadataRef& child : *contents) {
    if (child->isDeleted()) continue;
    items.push_back(itemFor(child));
    const bool descends = recursive && child->isDirectory();
    if (descends && !appendContent(items.back()->path(), recursive, showHidden, error, items)) return false;
  }
  return true;
}

/// Enters the children of a listing into the cache of records; what is known in another revision loses its
/// local copies.
void KZVDropboxFS::enterListing(const MetadataRef& folder) {
  const std::string folderKey = MetadataCache::keyOf(*folder);
  MetadataCache& cache = *requiredManager().metaCache;
  if (synced(cache, [&] { return cache.isEntered(folderKey, folder); })) return;
  for (const MetadataRef& child : *folder->contents()) {
    if (child->isDeleted() || !recordListedChild(folderKey, folder, child)) continue;
    const std::string key = MetadataCache::keyOf(*child);
    for (const auto& instance : attachedInstances(requiredUserId())) instance->cache().invalidate(key);
  }
  synced(cache, [&] { cache.noteEntered(folderKey, folder); });
}

/// True when another revision of the child was known before.
bool KZVDropboxFS::recordListedChild(const std::string& folderKey, const MetadataRef& folder,
                                     const MetadataRef& child) {
  if (child->isDirectory() && !child->contents()) return false;
  const std::string childKey = MetadataCache::keyOf(*child);
  MetadataCache& cache = *requiredManager().metaCache;
  return synced(cache, [&] {
    const MetadataRef known = cache.find(childKey);
    if (known == child) return false;
    // A listing that a change has overtaken is still shown, but must not bring the old records back.
    if (cache.find(folderKey) == folder) cache.store(childKey, child);
    return known && canonicalCompare(known->rev(), child->rev()) != 0;
  });
}

std::shared_ptr<FSItem> KZVDropboxFS::itemFor(const MetadataRef& record) {
  if (record->totalBytes() < 0) fatalInvariant("sizes are not negative");
  auto item = std::make_shared<FSItem>(record->path(), shared_from_this());
  item->setSize(static_cast<std::uint64_t>(record->totalBytes()));
  item->setIsDirectory(record->isDirectory());
  item->setModificationDate(record->lastModifiedDate());
  static constexpr FSItem::RecordTexts texts{
      [](const NSObject& object) { return static_cast<const DBMetadata&>(object).rev(); },
      [](const NSObject& object) { return static_cast<const DBMetadata&>(object).itemId(); }};
  item->setRecord(record, texts);
  return item;
}
