#include "core/copy/SendingBatch.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <vector>

#include <sys/stat.h>

#include "foundation/Paths.h"

namespace kzv::copy {

namespace {

int errnoOf(const NameProblem& problem) {
  switch (problem.kind) {
    case NameProblem::Kind::malformed:
      return EILSEQ;
    case NameProblem::Kind::tooLong:
      return ENAMETOOLONG;
    case NameProblem::Kind::reserved:
      break;
  }
  return EPERM;
}

NSErrorRef twinError(const std::string& first) {
  return copyError(EEXIST,
                   "not copied: \"" + first + "\" in the same folder has the same name on the volume");
}

}  // namespace

SendingBatch::SendingBatch(const KZVBatchId& batchId, CopyObservers observers,
                           std::shared_ptr<FSPlugin> volume)
    : batch_(batchId, std::move(observers)), volume_(std::move(volume)) {}

bool SendingBatch::run(const std::string& from, const std::string& to, NSErrorRef* error) {
  volume_->prepareForManyLookUps();
  batch_.add([this, from, to] { send(from, to, Place::top); }, CopyBatch::Order::soon);
  return batch_.run(maxConcurrentCopies, error);
}

void SendingBatch::send(const std::string& from, const std::string& to, Place place) {
  const auto refuse = [&](const NSErrorRef& reason) { batch_.finishFolder(from, to, reason); };
  struct stat link {};
  struct stat status {};
  if (::lstat(from.c_str(), &link) != 0 || ::stat(from.c_str(), &status) != 0)
    return refuse(NSError::posix(errno, from));
  const auto problem = to == "/" ? std::nullopt : volume_->nameProblem(lastPathComponent(to));
  if (problem) return refuse(copyError(errnoOf(*problem), problem->text));
  if (S_ISREG(status.st_mode)) {
    const auto file = batch_.expectFile(from, to, static_cast<std::uint64_t>(status.st_size));
    batch_.add([this, file] { sendFile(file); }, CopyBatch::Order::inTurn);
  } else if (S_ISDIR(status.st_mode) && S_ISLNK(link.st_mode) && place == Place::below) {
    // It may lead to a parent, or to folders that the person did not mean.
    refuse(copyError(ELOOP, "a link to a folder is not followed"));
  } else if (S_ISDIR(status.st_mode)) {
    sendFolder(from, to);
  } else {
    refuse(copyError(EINVAL, "neither a file nor a folder"));
  }
}

void SendingBatch::sendFile(const CopyBatch::FileRef& file) {
  NSErrorRef error;
  const auto source = NSURL::fileURLWithPath(file->from);
  std::optional<StoredFile> stored;
  if (source) stored = volume_->storeFile(*source, file->to, WriteBase(), batch_.progressOf(file), &error);
  if (!stored && !error) error = copyError(EIO, "the file was not stored");
  if (!stored) return batch_.finishFile(file, error);
  // A case-insensitive file system may keep the old spelling of the name.
  const bool isInPlace = volume_->pathKey(stored->path) == volume_->pathKey(file->to);
  batch_.finishFile(file, nullptr, isInPlace ? "" : stored->path, stored->sizeBytes);
}

void SendingBatch::sendFolder(const std::string& from, const std::string& to) {
  NSErrorRef error;
  // The root always exists and cannot be created. A stop leaves at most an empty folder.
  bool isThere = batch_.unlessStopped(
      [volume = volume_, to](NSErrorRef* reason) {
        if (to != "/" && !volume->createDirectoryAtPath(to, nullptr, reason)) return false;
        // Fills the volume's cache, so that it need not look up each file that is replaced.
        volume->contentAtPath(to, false, true, nullptr);
        return true;
      },
      &error);
  if (!isThere && !error) error = copyError(EIO, "the folder was not created");
  if (isThere) isThere = addChildren(from, to, &error);
  batch_.finishFolder(from, to, isThere ? nullptr : error);
}

bool SendingBatch::addChildren(const std::string& from, const std::string& to, NSErrorRef* error) {
  std::error_code code;
  std::vector<std::string> names;
  for (std::filesystem::directory_iterator entry(from, code), end; !code && entry != end;
       entry.increment(code))
    names.push_back(entry->path().filename().string());
  if (code) {
    setError(error, NSError::posix(code.value(), from));
    return false;
  }
  std::sort(names.begin(), names.end());
  std::map<std::string, std::string> taken;  // name key -> first name with that key
  for (const std::string& name : names) {
    const std::string child = appendingPathComponent(from, name);
    const std::string target = appendingPathComponent(to, name);
    const auto [first, isFree] = taken.try_emplace(volume_->nameKey(name), name);
    if (isFree) {
      batch_.add([this, child, target] { send(child, target, Place::below); }, CopyBatch::Order::inTurn);
    } else {
      batch_.finishFolder(child, target, twinError(first->second));
    }
  }
  return true;
}

}  // namespace kzv::copy
