#include "mount/testing/MemoryVolume.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <utility>

#include "core/KZVConstants.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "mount/VolumePath.h"

namespace kzv::mount {

namespace {

class MemoryReader final : public FSReader {
 public:
  MemoryReader(std::string bytes, std::string version)
      : bytes_(std::move(bytes)), version_(std::move(version)) {}
  std::uint64_t size() const override { return bytes_.size(); }
  const std::string& version() const override { return version_; }
  std::optional<std::size_t> read(std::uint64_t offset, std::span<std::byte> buffer,
                                  const ShouldContinue& /*shouldContinue*/, NSErrorRef* /*error*/) override {
    if (offset >= bytes_.size()) return 0;
    const std::size_t count = std::min<std::size_t>(buffer.size(), bytes_.size() - offset);
    std::copy_n(reinterpret_cast<const std::byte*>(bytes_.data()) + offset, count, buffer.data());
    return count;
  }

 private:
  const std::string bytes_;
  const std::string version_;
};

}  // namespace

bool MemoryVolume::perform(Call call, NSErrorRef* error, const std::function<bool()>& work) {
  std::function<void()> action;
  bool isDone = false;
  {
    const std::lock_guard lock(mutex_);
    ++counts_[call];
    const auto failure = failures_.find(call);
    const bool fails = failure != failures_.end() && failure->second.times-- > 0;
    if (!isUnlinked && (!fails || failure->second.when == When::afterwards)) isDone = work();
    if (!isUnlinked && fails) {
      isDone = false;
      setError(error, fsError(failure->second.code, "ordered"));
    } else if (!isUnlinked && !isDone && error && !*error) {
      setError(error, fsError(FSErrorCode::notFound, "not there"));
    }
    if (const auto found = actions_.find(call); found != actions_.end()) {
      action = std::move(found->second);
      actions_.erase(found);
    }
  }
  if (action) action();
  return isDone;
}

void MemoryVolume::fail(Call call, FSErrorCode code, int times, When when) {
  const std::lock_guard lock(mutex_);
  failures_.insert_or_assign(call, Failure{code, times, when});
}

void MemoryVolume::onNext(Call call, std::function<void()> action) {
  const std::lock_guard lock(mutex_);
  actions_[call] = std::move(action);
}

int MemoryVolume::count(Call call) const {
  const std::lock_guard lock(mutex_);
  const auto found = counts_.find(call);
  return found == counts_.end() ? 0 : found->second;
}

std::string MemoryVolume::store(const std::string& path, const std::string& bytes) {
  std::string folder;
  for (const std::string& name : componentsOf(deletingLastPathComponent(path))) {
    folder += "/" + name;
    items_.try_emplace(pathKey(folder), Item{folder, true, "", ""});
  }
  const std::string version = "v" + std::to_string(++lastVersion_);
  Item& item = items_.try_emplace(pathKey(path), Item{path, false, "", ""}).first->second;
  item.bytes = versions_[version] = bytes;
  return item.version = version;
}

void MemoryVolume::write(const std::string& path, const std::string& bytes) {
  const std::lock_guard lock(mutex_);
  store(path, bytes);
}

bool MemoryVolume::removeItem(const std::string& path) {
  return std::erase_if(items_,
                       [key = pathKey(path)](const auto& each) { return isAtOrBelow(each.first, key); }) > 0;
}

void MemoryVolume::erase(const std::string& path) {
  const std::lock_guard lock(mutex_);
  removeItem(path);
}

bool MemoryVolume::moveItem(const std::string& from, const std::string& to) {
  std::vector<Item> moved;
  for (const auto& [key, item] : items_)
    if (isAtOrBelow(key, pathKey(from))) moved.push_back(item);
  if (moved.empty() || (pathKey(from) != pathKey(to) && items_.contains(pathKey(to)))) return false;
  removeItem(from);
  for (Item& item : moved) {
    item.path = to + item.path.substr(from.size());
    if (!item.isFolder && item.path == to)
      versions_[item.version = "v" + std::to_string(++lastVersion_)] = item.bytes;
    items_[pathKey(item.path)] = item;
  }
  return true;
}

void MemoryVolume::moveElsewhere(const std::string& from, const std::string& to) {
  const std::lock_guard lock(mutex_);
  moveItem(from, to);
}

std::map<std::string, std::string> MemoryVolume::items() const {
  const std::lock_guard lock(mutex_);
  std::map<std::string, std::string> all;
  for (const auto& [key, item] : items_) all[item.path + (item.isFolder ? "/" : "")] = item.bytes;
  return all;
}

std::string MemoryVolume::bytesOf(const std::string& path) const {
  const auto all = items();
  const auto found = all.find(path);
  return found == all.end() ? "(none)" : found->second;
}

bool MemoryVolume::report(const std::string& folder) {
  const auto watched = watchedFolders();
  const auto found = std::find_if(watched.begin(), watched.end(),
                                  [&](const auto& item) { return pathKey(item->path()) == pathKey(folder); });
  if (found == watched.end()) return false;
  (*found)->changeCallback()(*found);
  return true;
}

std::optional<NameProblem> MemoryVolume::nameProblem(std::string_view name) const {
  if (auto problem = FSPlugin::nameProblem(name)) return problem;
  if (name.ends_with(".tmp")) return NameProblem{NameProblem::Kind::reserved, "reserved"};
  return std::nullopt;
}

std::shared_ptr<FSItem> MemoryVolume::itemOf(const Item& item) {
  auto listed = std::make_shared<FSItem>(item.path, shared_from_this());
  listed->setIsDirectory(item.isFolder);
  listed->setSize(item.bytes.size());
  listed->setVersion(item.version);
  return listed;
}

std::shared_ptr<FSItem> MemoryVolume::itemAtPath(const std::string& path, NSErrorRef* error) {
  std::shared_ptr<FSItem> found;
  perform(Call::attributes, error, [&] {
    const auto item = items_.find(pathKey(path));
    if (item != items_.end()) found = itemOf(item->second);
    return found != nullptr;
  });
  return found;
}

std::shared_ptr<NSDictionary> MemoryVolume::attributesAtPath(const std::string& path, NSErrorRef* error) {
  return itemAtPath(path, error) ? NSDictionary::with({}) : nullptr;
}

std::optional<FSItems> MemoryVolume::contentAtPath(const std::string& path, bool /*recursive*/,
                                                   bool /*showHidden*/, NSErrorRef* error) {
  FSItems listed;
  const bool isDone = perform(Call::list, error, [&] {
    const std::string folder = pathKey(path);
    for (const auto& [key, item] : items_)
      if (pathKey(deletingLastPathComponent(item.path)) == folder) listed.push_back(itemOf(item));
    return path == "/" || items_.contains(folder);
  });
  return isDone ? std::optional(listed) : std::nullopt;
}

std::shared_ptr<FSReader> MemoryVolume::openReader(const std::string& path, const std::string& version,
                                                   ProgressCallback /*progress*/, NSErrorRef* error) {
  std::shared_ptr<FSReader> reader;
  perform(Call::open, error, [&] {
    const auto item = items_.find(pathKey(path));
    const std::string wanted = version.empty() && item != items_.end() ? item->second.version : version;
    const auto bytes = versions_.find(wanted);
    if (bytes != versions_.end()) reader = std::make_shared<MemoryReader>(bytes->second, wanted);
    return reader != nullptr;
  });
  return reader;
}

std::optional<StoredFile> MemoryVolume::storeFile(const NSURL& source, const std::string& path,
                                                  const WriteBase& base, ProgressCallback progress,
                                                  NSErrorRef* error) {
  std::ifstream file(source.path(), std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  if (progress && !progress({0, 1000})) {
    setError(error, std::make_shared<NSError>(std::string(CanceledByUserErrorDomain), -1));
    return std::nullopt;
  }
  std::optional<StoredFile> stored;
  const bool isDone = perform(Call::store, error, [&] {
    const auto item = items_.find(pathKey(path));
    const std::string present = item == items_.end() ? "" : item->second.version;
    const bool isConflict = (base.kind == WriteBase::Kind::revision && present != base.revision) ||
                            (base.kind == WriteBase::Kind::nothing && !present.empty());
    const std::string place = isConflict && !present.empty() ? path + " (conflict)" : path;
    stored = StoredFile{place, store(place, bytes)};
    return true;
  });
  return isDone ? stored : std::nullopt;
}

std::optional<std::string> MemoryVolume::revisionAtPath(const std::string& path) {
  const std::lock_guard lock(mutex_);
  const auto item = items_.find(pathKey(path));
  return item == items_.end() ? std::nullopt : std::optional(item->second.version);
}

bool MemoryVolume::removeItemAtPath(const std::string& path, NSErrorRef* error) {
  return perform(Call::remove, error, [&] { return removeItem(path); });
}

bool MemoryVolume::moveFromPath(const std::string& path, const std::string& to,
                                const std::shared_ptr<NSDictionary>& /*attributes*/,
                                ProgressCallback /*progress*/, NSErrorRef* error) {
  return perform(Call::move, error, [&] { return moveItem(path, to); });
}

bool MemoryVolume::createDirectoryAtPath(const std::string& path,
                                         const std::shared_ptr<NSDictionary>& /*attributes*/,
                                         NSErrorRef* error) {
  return perform(Call::makeFolder, error, [&] {
    items_.try_emplace(pathKey(path), Item{path, true, "", ""});
    return true;
  });
}

std::shared_ptr<NSDictionary> MemoryVolume::fsAttributes(const std::string& /*path*/, NSErrorRef* error) {
  if (!perform(Call::space, error, [] { return true; })) return nullptr;
  return NSDictionary::with(
      {{NSFileSystemSize, NSNumber::withInt(1000)}, {NSFileSystemFreeSize, NSNumber::withInt(-1)}});
}

void MemoryVolume::startWatchFolder(const std::shared_ptr<FSItem>& item) {
  const std::lock_guard lock(mutex_);
  watched_.push_back(item);
}

void MemoryVolume::stopWatchFolder(const std::shared_ptr<FSItem>& item) {
  const std::lock_guard lock(mutex_);
  std::erase(watched_, item);
}

FSItems MemoryVolume::watchedFolders() const {
  const std::lock_guard lock(mutex_);
  return watched_;
}

std::vector<std::string> MemoryVolume::loadedTrees() const {
  const std::lock_guard lock(mutex_);
  return loadedTrees_;
}

void MemoryVolume::onTree(std::function<bool(const std::string& path)> action) {
  const std::lock_guard lock(mutex_);
  treeAction_ = std::move(action);
}

bool MemoryVolume::prepareToListTree(const std::string& path, std::size_t /*maxItems*/) {
  std::function<bool(const std::string&)> action;
  {
    const std::lock_guard lock(mutex_);
    loadedTrees_.push_back(path);
    action = treeAction_;
  }
  return !action || action(path);
}

}  // namespace kzv::mount
