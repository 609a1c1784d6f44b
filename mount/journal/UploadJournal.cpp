#include "mount/journal/UploadJournal.h"

#include <algorithm>
#include <boost/json.hpp>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <type_traits>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "core/KZVSupport.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSLog.h"
#include "foundation/Paths.h"
#include "foundation/PrivateFiles.h"
#include "foundation/StandardFolders.h"

namespace fs = std::filesystem;
namespace json = boost::json;

namespace kzv::mount {

namespace {

constexpr unsigned privateFile = 0600;
constexpr std::uint64_t maxEntryBytes = 1'000'000;

std::string lockOf(const std::string& folder) { return folder + "/lock"; }
std::string pendingFolder(const std::string& folder) { return folder + "/pending"; }
std::string renamesFolder(const std::string& folder) { return folder + "/renames"; }
std::string localFolder(const std::string& folder) { return folder + "/local"; }

std::string entryPath(const std::string& folder, const std::string& entryId) {
  return folder + '/' + entryId + ".json";
}

std::string dataIn(const std::string& folder, const std::string& entryId) {
  return folder + '/' + entryId + ".data";
}

/// Account id, encoded as a folder name.
std::string folderName(const std::string& accountId) {
  std::string name;
  for (const char c : accountId) {
    const bool isPlain =
        (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '_';
    name += isPlain ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return name;
}

/// The account id that folderName() encoded.
std::string accountOf(std::string_view folder) {
  std::string accountId;
  for (std::size_t at = 0; at < folder.size(); ++at) {
    unsigned byte = 0;
    const char* digits = folder.data() + at + 1;
    const bool isEscape = folder[at] == '%' && folder.size() - at > 2 &&
                          std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2;
    accountId += isEscape ? static_cast<char>(byte) : folder[at];
    if (isEscape) at += 2;
  }
  return accountId;
}

std::string journalsFolder() { return appendingPathComponent(stateFolder(), "mount"); }

std::string folderOf(const std::string& accountId) {
  return appendingPathComponent(journalsFolder(), folderName(accountId));
}

/// Whether a process has locked the journal.
bool isHeld(const std::string& folder) {
  const Descriptor lock(::open(lockOf(folder).c_str(), O_RDONLY | O_CLOEXEC));
  return lock.isOpen() && ::flock(lock.number(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

const char* textOf(WriteBase::Kind kind) {
  switch (kind) {
    case WriteBase::Kind::nothing:
      return "nothing";
    case WriteBase::Kind::revision:
      return "revision";
    case WriteBase::Kind::latestKnown:
      break;
  }
  return "latest";
}

WriteBase baseFrom(const json::object& entry) {
  const std::string kind(entry.at("base").as_string());
  if (kind == "nothing") return {WriteBase::Kind::nothing, {}};
  if (kind == "revision") return {WriteBase::Kind::revision, std::string(entry.at("revision").as_string())};
  return {};
}

/// When an entry was made, from its id (see newId); the epoch for other ids.
NSDate::Time timeOfId(const std::string& entryId) {
  std::int64_t nanoseconds = 0;
  std::from_chars(entryId.data(), entryId.data() + entryId.size(), nanoseconds);
  return NSDate::Time(
      std::chrono::duration_cast<NSDate::Time::duration>(std::chrono::nanoseconds(nanoseconds)));
}

/// The path in an entry. Throws when it is not valid, since it becomes names of the tree.
std::string pathFrom(const json::object& entry) {
  std::string path(entry.at("path").as_string());
  for (std::size_t slash = 0; slash < path.size();) {
    const std::size_t end = std::min(path.find('/', slash + 1), path.size());
    const std::string name = path.substr(slash + 1, end - slash - 1);
    if (path[0] != '/' || name.empty() || name == "." || name == ".." || name.find('\0') != std::string::npos)
      break;
    if (end == path.size()) return path;
    slash = end;
  }
  throw std::invalid_argument("its path is not the path of a file");
}

UploadJournal::Upload uploadFrom(const std::string& entryId, const json::object& entry) {
  constexpr std::int64_t latestSeconds = 8'000'000'000;  // in 2223; the clock's nanoseconds end in 2262
  UploadJournal::Upload upload{entryId, pathFrom(entry), baseFrom(entry), timeOfId(entryId), {}};
  if (const auto* since = entry.if_contains("since"))
    upload.since =
        NSDate::Time(std::chrono::seconds(std::clamp<std::int64_t>(since->as_int64(), 0, latestSeconds)));
  if (const auto* reason = entry.if_contains("reason")) upload.reason = reason->as_string();
  return upload;
}

UploadJournal::Local localFrom(const std::string& entryId, const json::object& entry) {
  return {entryId, pathFrom(entry)};
}

/// The ids of the entries in `folder`, oldest first.
std::vector<std::string> idsIn(const std::string& folder, std::string_view extension) {
  std::vector<std::string> ids;
  std::error_code code;
  for (fs::directory_iterator entry(folder, code), end; !code && entry != end; entry.increment(code))
    if (entry->path().extension() == extension) ids.push_back(entry->path().stem().string());
  std::sort(ids.begin(), ids.end());
  return ids;
}

/// Reads an entry with `read`; nothing when that fails, with the reason as a text in `problem`.
template <class Entry, class Read>
std::optional<Entry> readEntry(const std::string& path, Read read, std::string* problem = nullptr) {
  NSErrorRef error;
  std::string reason;
  try {
    if (const auto text = readFile(path, maxEntryBytes, &error)) return read(json::parse(*text).as_object());
    if (error) reason = error->localizedDescription();
  } catch (const std::exception& thrown) {
    reason = thrown.what();
  }
  if (problem) *problem = reason;
  return std::nullopt;
}

/// The same, and logs a damaged entry, which is kept for a person to look at.
template <class Entry, class Read>
std::optional<Entry> readOrLogEntry(const std::string& path, Read read) {
  std::string problem;
  auto entry = readEntry<Entry>(path, read, &problem);
  if (!entry) NSLog(NSLogLevel::warning, "mount", path + " is damaged and was kept: " + problem);
  return entry;
}

void removeIfThere(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    NSLog(NSLogLevel::warning, "UploadJournal::removeIfThere",
          NSError::posix(errno, path)->localizedDescription());
}

/// The entries in `folder`, oldest first. Removes bytes without an entry, entries without bytes, and files
/// that a killed process left half written.
template <class Entry, class Read>
std::vector<Entry> entriesWithBytes(const std::string& folder, Read read) {
  std::vector<Entry> entries;
  const auto ids = idsIn(folder, ".json");
  for (const std::string& entryId : ids) {
    auto entry = readOrLogEntry<Entry>(entryPath(folder, entryId),
                                       [&](const json::object& object) { return read(entryId, object); });
    if (::access(dataIn(folder, entryId).c_str(), R_OK) != 0) {
      removeIfThere(entryPath(folder, entryId));  // the process was killed between the two removals
    } else if (entry) {
      entries.push_back(*std::move(entry));
    }
  }
  std::error_code code;
  for (fs::directory_iterator file(folder, code), end; !code && file != end; file.increment(code)) {
    const bool isWhole = file->path().extension() == ".json" || file->path().extension() == ".data";
    if (!isWhole || !std::binary_search(ids.begin(), ids.end(), file->path().stem().string()))
      removeIfThere(file->path().string());
  }
  return entries;
}

/// Like writeFileAtomically, but does not wait for the disk.
NSErrorRef writeQuickly(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".new";
  const Descriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, privateFile));
  const bool isWritten =
      file.isOpen() && ::write(file.number(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (isWritten && ::rename(temporary.c_str(), path.c_str()) == 0) return nullptr;
  return NSError::posix(errno, path);
}

NSErrorRef syncData(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return file.isOpen() && ::fdatasync(file.number()) == 0 ? nullptr : NSError::posix(errno, path);
}

NSErrorRef busyError(const std::string& accountId) {
  return NSError::withText(NSPOSIXErrorDomain, EBUSY,
                           "this account is already mounted at " + UploadJournal::mountpointOf(accountId));
}

}  // namespace

UploadJournal::UploadJournal(std::string folder, Descriptor lock)
    : folder_(std::move(folder)), lock_(std::move(lock)) {}

std::unique_ptr<UploadJournal> UploadJournal::open(const std::string& accountId,
                                                   const std::string& mountpoint, NSErrorRef* error) {
  const std::string folder = folderOf(accountId);
  if (!makePrivateFolder(folder, error)) return nullptr;
  const std::string lockPath = lockOf(folder);
  Descriptor lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, privateFile));
  if (!lock.isOpen()) {
    setError(error, NSError::posix(errno, lockPath));
    return nullptr;
  }
  if (::flock(lock.number(), LOCK_EX | LOCK_NB) != 0) {
    setError(error, busyError(accountId));
    return nullptr;
  }
  for (const std::string& made : {pendingFolder(folder), renamesFolder(folder), localFolder(folder)})
    if (!makePrivateFolder(made, error)) return nullptr;
  if (!writeFile(lockPath, mountpoint, error)) return nullptr;
  return std::unique_ptr<UploadJournal>(new UploadJournal(folder, std::move(lock)));
}

std::string UploadJournal::mountpointOf(const std::string& accountId) {
  return readFile(lockOf(folderOf(accountId)), maxEntryBytes).value_or("");
}

namespace {

/// Adds the files of `folder` that have both an entry and bytes.
template <class Entry, class Read>
void addWaiting(const std::string& folder, Read read, std::vector<UploadJournal::Waiting>& files) {
  for (const std::string& entryId : idsIn(folder, ".json")) {
    UploadJournal::Waiting waiting;
    waiting.upload.id = entryId;
    waiting.upload.since = timeOfId(entryId);
    waiting.dataPath = dataIn(folder, entryId);
    struct stat status {};
    if (::stat(waiting.dataPath.c_str(), &status) != 0) continue;  // uploaded or removed just now
    waiting.sizeBytes = static_cast<std::uint64_t>(status.st_size);
    auto entry = readEntry<Entry>(entryPath(folder, entryId),
                                  [&](const json::object& object) { return read(entryId, object); });
    waiting.isDamaged = !entry;
    if constexpr (std::is_same_v<Entry, UploadJournal::Upload>)
      if (entry) waiting.upload = *std::move(entry);
    files.push_back(std::move(waiting));
  }
}

}  // namespace

UploadJournal::State UploadJournal::stateOf(const std::string& accountId) {
  State state;
  state.accountId = accountId;
  state.mountpoint = mountpointOf(accountId);
  state.isMounted = isHeld(folderOf(accountId));
  state.folder = pendingFolder(folderOf(accountId));
  addWaiting<Upload>(state.folder, uploadFrom, state.waiting);
  std::vector<Waiting> locals;
  addWaiting<Local>(localFolder(folderOf(accountId)), localFrom, locals);
  for (Waiting& local : locals)
    if (local.isDamaged) state.waiting.push_back(std::move(local));
  return state;
}

bool UploadJournal::isMounted(const std::string& accountId) { return isHeld(folderOf(accountId)); }

std::vector<UploadJournal::State> UploadJournal::states() {
  std::vector<std::string> accounts;
  std::error_code code;
  for (fs::directory_iterator entry(journalsFolder(), code), end; !code && entry != end;
       entry.increment(code))
    if (entry->is_directory(code)) accounts.push_back(accountOf(entry->path().filename().string()));
  std::sort(accounts.begin(), accounts.end());
  std::vector<State> states;
  for (const std::string& account : accounts) states.push_back(stateOf(account));
  return states;
}

std::vector<UploadJournal::Upload> UploadJournal::uploads() {
  return entriesWithBytes<Upload>(pendingFolder(folder_), uploadFrom);
}

std::vector<UploadJournal::Local> UploadJournal::locals() {
  return entriesWithBytes<Local>(localFolder(folder_), localFrom);
}

std::vector<UploadJournal::Rename> UploadJournal::renames() {
  const std::string folder = renamesFolder(folder_);
  std::vector<Rename> renames;
  for (const std::string& entryId : idsIn(folder, ".json")) {
    auto rename = readOrLogEntry<Rename>(entryPath(folder, entryId), [&](const json::object& entry) {
      return Rename{entryId, std::string(entry.at("from").as_string()),
                    std::string(entry.at("to").as_string()), std::string(entry.at("aside").as_string())};
    });
    if (rename) renames.push_back(*std::move(rename));
  }
  return renames;
}

std::string UploadJournal::newId() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return fmt::format("{:020}-{}", std::chrono::nanoseconds(now).count(), KZVSupport::uniquePathComponent());
}

std::string UploadJournal::dataPath(const std::string& entryId) const {
  return dataIn(pendingFolder(folder_), entryId);
}

std::string UploadJournal::localPath(const std::string& entryId) const {
  return dataIn(localFolder(folder_), entryId);
}

std::optional<std::uint64_t> UploadJournal::freeBytes() const {
  struct statvfs disk {};
  if (::statvfs(folder_.c_str(), &disk) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(disk.f_bavail) * disk.f_frsize;
}

/// Writes `text` as the entry for the bytes at `dataPath`.
NSErrorRef UploadJournal::writeEntry(const std::string& path, const std::string& dataPath,
                                     const std::string& text, Durability durability) {
  if (durability == Durability::process) return writeQuickly(path, text);
  NSErrorRef error = syncData(dataPath);
  if (!error) writeFileAtomically(path, text, privateFile, &error);
  return error;
}

NSErrorRef UploadJournal::put(const Upload& upload, Durability durability) {
  const auto since = std::chrono::floor<std::chrono::seconds>(upload.since).time_since_epoch().count();
  json::object entry{{"path", upload.path}, {"base", textOf(upload.base.kind)}, {"since", since}};
  if (!upload.reason.empty()) entry["reason"] = upload.reason;
  if (upload.base.kind == WriteBase::Kind::revision) entry["revision"] = upload.base.revision;
  return writeEntry(entryPath(pendingFolder(folder_), upload.id), dataPath(upload.id), json::serialize(entry),
                    durability);
}

NSErrorRef UploadJournal::put(const Local& local, Durability durability) {
  return writeEntry(entryPath(localFolder(folder_), local.id), localPath(local.id),
                    json::serialize(json::object{{"path", local.path}}), durability);
}

NSErrorRef UploadJournal::put(const Rename& rename) {
  NSErrorRef error;
  const json::object entry{{"from", rename.from}, {"to", rename.to}, {"aside", rename.aside}};
  writeFileAtomically(entryPath(renamesFolder(folder_), rename.id), json::serialize(entry), privateFile,
                      &error);
  return error;
}

void UploadJournal::forgetUpload(const std::string& entryId) {
  removeIfThere(entryPath(pendingFolder(folder_), entryId));
}

void UploadJournal::forgetLocal(const std::string& entryId) {
  removeIfThere(entryPath(localFolder(folder_), entryId));
}

void UploadJournal::forgetRename(const std::string& entryId) {
  removeIfThere(entryPath(renamesFolder(folder_), entryId));
}

}  // namespace kzv::mount
