#include "kzv/Entry.h"

#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "kzv/Formatting.h"
#include "kzv/JsonLine.h"

namespace kzv::cli {

namespace {
std::string withFolderMark(std::string shown, bool isDirectory) {
  if (isDirectory && !shown.ends_with('/')) shown += '/';
  return shown;
}
}  // namespace

Entry Entry::from(const FSItem& item) {
  return {item.path(), item.name(), item.isDirectory(), item.size(), item.modificationDate()};
}

Entry Entry::from(const std::string& path, const NSDictionary& attributes) {
  Entry entry;
  entry.path = path;
  entry.name = lastPathComponent(path);
  const std::string* type = textOf(attributes.objectForKey(NSFileType));
  entry.isDirectory = type && *type == NSFileTypeDirectory;
  if (const auto size = as<NSNumber>(attributes.objectForKey(NSFileSize)); size && size->int64Value() > 0)
    entry.sizeBytes = static_cast<std::uint64_t>(size->int64Value());
  if (const auto date = as<NSDate>(attributes.objectForKey(NSFileModificationDate)))
    entry.modified = date->time();
  return entry;
}

std::string Entry::json() const {
  std::vector<JsonField> fields{{"path", path}, {"name", name}, {"dir", isDirectory}, {"size", sizeBytes}};
  if (modified) fields.push_back({"modified", NSDate::iso8601(*modified)});
  return jsonLine(fields);
}

std::string Entry::shownName() const { return withFolderMark(harmless(name), isDirectory); }
std::string Entry::shownPath() const { return withFolderMark(harmless(path), isDirectory); }

}  // namespace kzv::cli
