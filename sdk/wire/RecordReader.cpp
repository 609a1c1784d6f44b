#include "sdk/wire/RecordReader.h"

#include <algorithm>
#include <boost/json.hpp>
#include <set>
#include <utility>

#include "foundation/Paths.h"
#include "foundation/Unicode.h"
#include "sdk/wire/IconNames.h"
#include "sdk/wire/ServiceJson.h"

namespace kzv::sdk {

namespace json = boost::json;
using namespace servicejson;

namespace {

/// A name must be one component of a path; anything else could lead out of its folder.
bool isComponent(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

bool isSharedFolder(const json::object& folder) {
  const json::object* sharing = object(folder, "sharing_info");
  return sharing && text(*sharing, "shared_folder_id").has_value();
}

bool readFile(const json::object& file, DBMetadata::Fields& fields) {
  const auto rev = text(file, "rev");
  const auto size = integer(file, "size");
  if (!rev || rev->empty() || !size || *size < 0) return false;
  fields.rev = *rev;
  fields.totalBytes = *size;
  if (const auto modified = text(file, "server_modified")) {
    fields.lastModifiedDate = NSDate::fromIso8601(*modified);
  }
  fields.icon = iconForFile(fields.name);
  fields.thumbnailExists =
      boolean(file, "is_downloadable").value_or(true) && isPreviewable(fields.name, *size);
  return true;
}

void readFolder(const json::object& folder, DBMetadata::Fields& fields) {
  fields.isDirectory = true;
  fields.icon = iconForFolder(fields.lowercasePath, isSharedFolder(folder));
}

}  // namespace

RecordReader::RecordRef RecordReader::broken() {
  understood_ = false;
  return nullptr;
}

std::shared_ptr<const std::string> RecordReader::folderOfDisplayPath(std::string_view displayPath) {
  if (!displayPath.starts_with('/')) return nullptr;
  const std::string_view folder = displayPath.substr(0, std::max<std::size_t>(displayPath.rfind('/'), 1));
  if (!lastFolder_ || *lastFolder_ != folder) lastFolder_ = std::make_shared<const std::string>(folder);
  return lastFolder_;
}

std::optional<DBMetadata::Fields> RecordReader::commonFields(const json::object& object,
                                                             std::shared_ptr<const std::string> folderPath) {
  const auto name = text(object, "name");
  if (!name || !isComponent(*name)) return std::nullopt;
  DBMetadata::Fields fields;
  fields.lowercasePath = text(object, "path_lower").value_or("");
  fields.folderPath = folderPath
                          ? std::move(folderPath)
                          : folderOfDisplayPath(text(object, "path_display").value_or(fields.lowercasePath));
  if (!fields.folderPath) return std::nullopt;
  fields.name = *name;
  fields.itemId = text(object, "id").value_or("");
  if (fields.lowercasePath.empty()) {
    fields.lowercasePath = caselessKey(appendingPathComponent(*fields.folderPath, *name));
  }
  return fields;
}

RecordReader::RecordRef RecordReader::record(const json::object& object,
                                             std::shared_ptr<const std::string> folderPath, Kind kind) {
  understood_ = true;
  const std::string_view tag = kind == Kind::file     ? "file"
                               : kind == Kind::folder ? "folder"
                                                      : text(object, ".tag").value_or("");
  if (tag.empty()) return broken();
  if (tag != "file" && tag != "folder" && tag != "deleted") return nullptr;
  auto fields = commonFields(object, std::move(folderPath));
  if (!fields) return broken();
  if (tag == "file") {
    if (!readFile(object, *fields)) return broken();
  } else if (tag == "folder") {
    readFolder(object, *fields);
  } else {
    fields->isDeleted = true;
    fields->icon = iconForFile(fields->name);
  }
  return std::make_shared<const DBMetadata>(std::move(*fields));
}

std::vector<DBDeltaEntry> RecordReader::deltaEntries(const json::array& entries, std::size_t& unreadable) {
  std::vector<DBDeltaEntry> changes;
  changes.reserve(entries.size());
  for (const json::value& entry : entries) {
    const json::object* members = entry.if_object();
    const auto key = members ? text(*members, "path_lower") : std::nullopt;
    if (members && !key) continue;  // not in this account's tree
    if (!key || !key->starts_with('/')) {
      ++unreadable;
    } else if (text(*members, ".tag") == "deleted") {
      changes.push_back({std::string(*key), nullptr});
    } else if (RecordRef changed = record(*members, nullptr)) {
      changes.push_back({std::string(*key), std::move(changed)});
    } else if (!understood_) {
      ++unreadable;
      changes.push_back({std::string(*key), nullptr});
    }
  }
  return changes;
}

ListingBuilder::ListingBuilder(std::string folderPath)
    : folderPath_(std::make_shared<const std::string>(std::move(folderPath))) {}

bool ListingBuilder::addPage(const json::array& entries) {
  children_.reserve(children_.size() + entries.size());
  for (const json::value& entry : entries) {
    const json::object* members = entry.if_object();
    if (!members) return false;
    RecordReader::RecordRef record = reader_.record(*members, folderPath_);
    if (!reader_.isUnderstood()) return false;
    if (!record) continue;
    std::string key(text(*members, "path_lower").value_or(""));
    if (key.empty()) key = record->lowercasePath();
    children_.push_back({std::move(key), std::move(record)});
  }
  return true;
}

std::shared_ptr<const DBMetadata::Contents> ListingBuilder::contentsOf(std::vector<Child> children) {
  std::stable_sort(children.begin(), children.end(),
                   [](const Child& left, const Child& right) { return left.key < right.key; });
  const auto lastFirst =
      std::unique(children.rbegin(), children.rend(),
                  [](const Child& left, const Child& right) { return left.key == right.key; });
  children.erase(children.begin(), lastFirst.base());
  std::erase_if(children, [](const Child& child) { return child.record->isDeleted(); });
  auto contents = std::make_shared<DBMetadata::Contents>();
  contents->reserve(children.size());
  for (Child& child : children) contents->push_back(std::move(child.record));
  return contents;
}

std::shared_ptr<const DBMetadata::Contents> ListingBuilder::contents() {
  return contentsOf(std::exchange(children_, {}));
}

TreeBuilder::TreeBuilder(RecordRef top) : top_(std::move(top)), topKey_(top_->lowercasePath()) { clear(); }

void TreeBuilder::clear() {
  folders_.clear();
  folders_[topKey_] = {top_, std::make_shared<const std::string>(top_->path()), {}};
}

bool TreeBuilder::addPage(const json::array& entries) {
  return std::all_of(entries.begin(), entries.end(), [&](const json::value& entry) {
    const json::object* members = entry.if_object();
    return members && addEntry(*members);
  });
}

bool TreeBuilder::addEntry(const json::object& entry) {
  const auto lowercase = text(entry, "path_lower");
  if (!lowercase) return true;  // reached otherwise than through this account's tree
  const std::string key(*lowercase);
  const std::string top = topKey_ == "/" ? "" : topKey_;
  if (key == top) {
    if (text(entry, ".tag") != "folder") clear();  // what follows was made after it had gone
    return true;
  }
  if (!key.starts_with(top + '/')) return false;
  const std::string folderKey = deletingLastPathComponent(key);
  Folder& parent = folders_[folderKey];
  RecordRef record = reader_.record(entry, parent.path);
  if (!record) return reader_.isUnderstood();
  parent.children.push_back(record);
  if (!record->isDirectory()) {
    removeBelow(key);
    return true;
  }
  Folder& own = folders_[key];
  if (!own.path || *own.path != record->path())
    own.path = std::make_shared<const std::string>(record->path());
  own.record = std::move(record);
  return true;
}

/// A file or nothing stands where a folder may have been.
void TreeBuilder::removeBelow(const std::string& key) {
  folders_.erase(key);
  const auto first = folders_.lower_bound(key + '/');
  auto end = first;
  while (end != folders_.end() && end->first.starts_with(key) && end->first[key.size()] == '/') ++end;
  folders_.erase(first, end);
}

std::shared_ptr<const DBMetadata::Contents> TreeBuilder::contentsOf(Folder& folder) {
  std::vector<ListingBuilder::Child> children;
  children.reserve(folder.children.size());
  for (RecordRef& record : folder.children) {
    std::string key = record->lowercasePath();
    if (*record->folderPath() != *folder.path) {  // it came before its folder's entry
      DBMetadata::Fields fields = record->fields();
      fields.folderPath = folder.path;
      record = std::make_shared<const DBMetadata>(std::move(fields));
    }
    children.push_back({std::move(key), std::move(record)});
  }
  folder.children = {};
  return ListingBuilder::contentsOf(std::move(children));
}

std::vector<RecordReader::RecordRef> TreeBuilder::folders() {
  std::vector<RecordRef> folders;
  std::set<std::string, std::less<>> listed{
      topKey_};  // what lies in no listed folder is not part of the tree
  for (auto& [key, folder] : folders_) {
    if (!folder.record || listed.erase(key) == 0) continue;
    DBMetadata::Fields fields = folder.record->fields();
    fields.contents = contentsOf(folder);
    for (const RecordRef& child : *fields.contents) {
      if (!child->isDirectory()) continue;
      const std::string childKey = child->lowercasePath();
      const auto below = folders_.find(childKey);
      if (below == folders_.end()) continue;
      below->second.record = child;
      if (*below->second.path != child->path())
        below->second.path = std::make_shared<const std::string>(child->path());
      listed.insert(childKey);
    }
    folders.push_back(std::make_shared<const DBMetadata>(std::move(fields)));
  }
  clear();
  return folders;
}

}  // namespace kzv::sdk
