#include "sdk/wire/RecordReader.h"

#include <algorithm>
#include <boost/json.hpp>

#include "foundation/Paths.h"
#include "foundation/Unicode.h"
#include "sdk/wire/ContentHash.h"
#include "sdk/wire/IconNames.h"
#include "sdk/wire/ServiceJson.h"

namespace kzv::sdk {

namespace json = boost::json;
using namespace servicejson;

namespace {

/// A name is one component of a path. Anything else in its place would lead out of the folder it is in.
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
    if (members && !key) continue;  // reached otherwise than through this account's tree
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

void ListingBuilder::keepLastOfEachKey() {
  std::stable_sort(children_.begin(), children_.end(),
                   [](const Child& left, const Child& right) { return left.key < right.key; });
  const auto lastFirst =
      std::unique(children_.rbegin(), children_.rend(),
                  [](const Child& left, const Child& right) { return left.key == right.key; });
  children_.erase(children_.begin(), lastFirst.base());
  std::erase_if(children_, [](const Child& child) { return child.record->isDeleted(); });
}

std::shared_ptr<const DBMetadata::Contents> ListingBuilder::contents() {
  keepLastOfEachKey();
  auto contents = std::make_shared<DBMetadata::Contents>();
  contents->reserve(children_.size());
  for (const Child& child : children_) contents->push_back(child.record);
  return contents;
}

std::string ListingBuilder::hash() const {
  Sha256 digest;
  for (const Child& child : children_) {
    digest.update(child.key);
    digest.update(std::string_view("\0", 1));
    digest.update(child.record->isDirectory() ? std::string("folder") : child.record->rev());
    digest.update("\n");
  }
  return hexadecimal(digest.finish());
}

}  // namespace kzv::sdk
