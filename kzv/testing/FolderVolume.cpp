#include "kzv/testing/FolderVolume.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include <unistd.h>

#include "core/KZVConstants.h"
#include "core/KZVCoreObj.h"
#include "core/KZVSupport.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "kzv/testing/FolderPlugin.h"

namespace kzv::cli {

namespace fs = std::filesystem;

namespace {

/// What the beginning of a name makes of the item.
struct Behaviour {
  static constexpr std::string_view fails = "fail-";         // every operation fails
  static constexpr std::string_view hangs = "hang-";         // looking at it never ends
  static constexpr std::string_view unlinks = "unlink-";     // looking at it unlinks the account
  static constexpr std::string_view endless = "endless-";    // its transfer goes on until it is stopped
  static constexpr std::string_view changed = "changed-";    // another version is there when it is written
  static constexpr std::string_view timeless = "timeless-";  // has no modification date
  static constexpr std::string_view many = "many-";          // a folder of 50,000 files
};
constexpr int manyCount = 50'000;

NSErrorRef orderedError() {
  return std::make_shared<NSError>(
      "TestDomain", 7, NSDictionary::with({{NSLocalizedDescriptionKey, str("this item always fails")}}));
}

NSDate::Time modificationTime(const fs::path& path) {
  return std::chrono::time_point_cast<NSDate::Time::duration>(
      std::chrono::file_clock::to_sys(fs::last_write_time(path)));
}

}  // namespace

FolderVolume::FolderVolume(std::string accountId, fs::path tree)
    : accountId_(std::move(accountId)), tree_(std::move(tree)) {}

FolderVolume::~FolderVolume() {
  if (tmpFolderUrl_) NSFileManager::defaultManager().removeItemAtURL(*tmpFolderUrl_);
  FolderPlugin::noteEvent("volume " + accountId_ + " is gone");
}

id FolderVolume::options() const { return str(accountId_); }

void FolderVolume::eject() { FolderPlugin::shared().unlinkAccount(accountId_, nullptr); }

fs::path FolderVolume::onDisk(const std::string& path) const { return tree_ / path.substr(1); }

bool FolderVolume::failsByName(const std::string& path, NSErrorRef* error) {
  const std::string name = lastPathComponent(path);
  if (name.starts_with(Behaviour::hangs)) {
    FolderPlugin::noteEvent("hangs");
    while (true) ::pause();
  }
  if (name.starts_with(Behaviour::unlinks)) eject();
  if (name.starts_with(Behaviour::fails)) setError(error, orderedError());
  return name.starts_with(Behaviour::fails) || name.starts_with(Behaviour::unlinks);
}

bool FolderVolume::isExists(const std::string& path) { return attributesAtPath(path, nullptr) != nullptr; }

std::shared_ptr<NSDictionary> FolderVolume::attributesAtPath(const std::string& path, NSErrorRef* error) {
  if (failsByName(path, error)) return nullptr;
  const fs::path place = onDisk(path);
  if (!fs::exists(place)) return nullptr;
  const bool isFolder = fs::is_directory(place);
  const auto size = isFolder ? 0 : static_cast<std::int64_t>(fs::file_size(place));
  const id type = str(std::string(isFolder ? NSFileTypeDirectory : NSFileTypeRegular));
  if (lastPathComponent(path).starts_with(Behaviour::timeless))
    return NSDictionary::with({{NSFileSize, NSNumber::withInt(size)}, {NSFileType, type}});
  return NSDictionary::with({{NSFileSize, NSNumber::withInt(size)},
                             {NSFileModificationDate, std::make_shared<NSDate>(modificationTime(place))},
                             {NSFileType, type}});
}

FSItems FolderVolume::manyItems(const std::string& path) {
  FSItems items;
  const auto self = shared_from_this();
  for (int i = 0; i < manyCount; ++i)
    items.push_back(std::make_shared<FSItem>(path + "/file " + std::to_string(i), self));
  return items;
}

std::optional<FSItems> FolderVolume::contentAtPath(const std::string& path, bool recursive, bool showHidden,
                                                   NSErrorRef* error) {
  if (failsByName(path, error) || !fs::is_directory(onDisk(path))) return std::nullopt;
  if (lastPathComponent(path).starts_with(Behaviour::many)) return manyItems(path);
  FSItems items;
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(onDisk(path))) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const auto item = std::make_shared<FSItem>(appendingPathComponent(path, name), shared_from_this());
    const fs::path place = onDisk(item->path());
    item->setIsDirectory(fs::is_directory(place));
    if (!item->isDirectory()) item->setSize(fs::file_size(place));
    if (!name.starts_with(Behaviour::timeless)) item->setModificationDate(modificationTime(place));
    items.push_back(item);
    if (!recursive || !item->isDirectory()) continue;
    auto below = contentAtPath(item->path(), true, showHidden, error);
    if (!below) return std::nullopt;
    items.insert(items.end(), below->begin(), below->end());
  }
  return items;
}

bool FolderVolume::transfer(const std::string& path, const fs::path& from, const fs::path& to,
                            const ProgressCallback& progress, NSErrorRef* error) {
  if (failsByName(path, error)) return false;
  const bool isEndless = lastPathComponent(path).starts_with(Behaviour::endless);
  bool goesOn = !progress || progress({0, 1000});
  for (std::uint64_t done = 1; goesOn && isEndless; done = std::min<std::uint64_t>(done + 1, 990)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    goesOn = progress({done, 1000});
  }
  if (goesOn && progress) goesOn = progress({1000, 1000});
  std::error_code code;
  if (goesOn && fs::copy_file(from, to, fs::copy_options::overwrite_existing, code)) return true;
  setError(error, goesOn ? NSError::posix(code.value(), path)
                         : std::make_shared<NSError>(std::string(CanceledByUserErrorDomain), -1));
  return false;
}

std::shared_ptr<NSURL> FolderVolume::requestFileUrl(const std::string& path, ProgressCallback progress,
                                                    NSErrorRef* error) {
  {
    const std::lock_guard lock(mutex_);
    if (!tmpFolderUrl_) tmpFolderUrl_ = KZVCoreObj::shared().temporaryFolderForPlugin(*this, error);
    if (!tmpFolderUrl_) return nullptr;
  }
  const std::string copy = appendingPathComponent(tmpFolderUrl_->path(), KZVSupport::uniquePathComponent());
  return transfer(path, onDisk(path), copy, progress, error) ? NSURL::fileURLWithPath(copy) : nullptr;
}

void FolderVolume::releaseFileUrl(const NSURL& url) { NSFileManager::defaultManager().removeItemAtURL(url); }

bool FolderVolume::writeFile(const NSURL& source, const std::string& path, ProgressCallback progress,
                             NSErrorRef* error) {
  return transfer(path, source.path(), onDisk(path), progress, error);
}

std::optional<StoredFile> FolderVolume::storeFile(const NSURL& source, const std::string& path,
                                                  const WriteBase& /*base*/, ProgressCallback progress,
                                                  NSErrorRef* error) {
  const bool isChanged = lastPathComponent(path).starts_with(Behaviour::changed);
  const std::string place = isChanged ? path + " (1)" : path;
  if (!writeFile(source, place, std::move(progress), error)) return std::nullopt;
  return StoredFile{place, std::nullopt};
}

bool FolderVolume::removeItemAtPath(const std::string& path, NSErrorRef* error) {
  return !failsByName(path, error) && NSFileManager::defaultManager().removeItemAtPath(onDisk(path), error);
}

bool FolderVolume::moveFromPath(const std::string& path, const std::string& to,
                                const std::shared_ptr<NSDictionary>& /*attributes*/,
                                ProgressCallback /*progress*/, NSErrorRef* error) {
  if (failsByName(path, error)) return false;
  std::error_code code;
  fs::rename(onDisk(path), onDisk(to), code);
  if (code) setError(error, NSError::posix(code.value(), to));
  return !code;
}

bool FolderVolume::createDirectoryAtPath(const std::string& path,
                                         const std::shared_ptr<NSDictionary>& /*attributes*/,
                                         NSErrorRef* error) {
  return !failsByName(path, error) &&
         NSFileManager::defaultManager().createDirectoryAtPath(onDisk(path), true, error);
}

std::shared_ptr<NSDictionary> FolderVolume::fsAttributes(const std::string& /*path*/, NSErrorRef* /*error*/) {
  return NSDictionary::with({{NSFileSystemSize, NSNumber::withInt(2'000'000'000)},
                             {NSFileSystemFreeSize, NSNumber::withInt(-1'500'000)}});
}

}  // namespace kzv::cli
