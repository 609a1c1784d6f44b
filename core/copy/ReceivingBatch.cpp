#include "core/copy/ReceivingBatch.h"

#include <cerrno>

#include <sys/stat.h>

#include "foundation/NSFileManager.h"
#include "foundation/Paths.h"

namespace kzv::copy {

namespace {

/// Names from a volume are untrusted and become part of a local path.
bool canBeLocalName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

/// Creates a folder unless it exists. 0 or an errno value.
int makeFolder(const std::string& path, bool mayBeLink, LocalAccess access) {
  if (::mkdir(path.c_str(), access == LocalAccess::ownerOnly ? 0700 : 0777) == 0) return 0;
  if (errno != EEXIST) return errno;
  struct stat status {};
  if ((mayBeLink ? ::stat(path.c_str(), &status) : ::lstat(path.c_str(), &status)) != 0) return errno;
  return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

/// The item with its attributes from the file system: the given one may have only a path.
std::shared_ptr<FSItem> described(const CopyBatch& batch, const std::shared_ptr<FSItem>& item,
                                  NSErrorRef* error) {
  if (!item->fs()) return nullptr;
  return batch.unlessStopped(
      [item](NSErrorRef* reason) { return item->fs()->itemAtPath(item->path(), reason); }, error);
}

}  // namespace

ReceivingBatch::ReceivingBatch(const KZVBatchId& batchId, CopyObservers observers, LocalAccess access)
    : access_(access), batch_(batchId, std::move(observers)) {}

bool ReceivingBatch::run(const FSItems& items, const std::string& path, NSErrorRef* error) {
  const bool isFolder = items.size() != 1 || path.ends_with('/');
  const std::string holder = isFolder ? path : deletingLastPathComponent(path);
  if (!NSFileManager::defaultManager().createDirectoryAtPath(holder, true, error)) return false;
  for (const Item& item : items) {
    if (item->fs()) item->fs()->prepareForManyLookUps();
  }
  for (const Item& item : items) addTop(item, isFolder ? appendingPathComponent(path, item->name()) : path);
  return batch_.run(maxConcurrentCopies, error);
}

void ReceivingBatch::addTop(const Item& item, const std::string& to) {
  batch_.add(
      [this, item, to] {
        NSErrorRef error;
        const Item full = described(batch_, item, &error);
        if (!full) {
          if (!error) error = copyError(ENOENT, "no such file or folder");
          batch_.finishFolder(item->path(), to, error);
        } else if (full->isDirectory()) {
          copyFolder(full, to, Link::follow);
        } else {
          copyFile(full, batch_.expectFile(full->path(), to, full->size()), Link::follow);
        }
      },
      CopyBatch::Order::soon);
}

void ReceivingBatch::addFile(const Item& item, const std::string& to) {
  const auto file = batch_.expectFile(item->path(), to, item->size());
  batch_.add([this, item, file] { copyFile(item, file, Link::refuse); }, CopyBatch::Order::inTurn);
}

void ReceivingBatch::addFolder(const Item& item, const std::string& to, Link link) {
  batch_.add([this, item, to, link] { copyFolder(item, to, link); }, CopyBatch::Order::soon);
}

void ReceivingBatch::addChildren(const FSItems& children, const std::string& folder) {
  for (const Item& child : children) {
    const std::string name = child->name();
    const std::string to = appendingPathComponent(folder, name);
    if (!canBeLocalName(name)) {
      batch_.finishFolder(child->path(), to, copyError(EINVAL, "this name is not allowed on this disk"));
    } else if (child->isDirectory()) {
      addFolder(child, to, Link::refuse);
    } else {
      addFile(child, to);
    }
  }
}

void ReceivingBatch::copyFolder(const Item& item, const std::string& to, Link link) {
  NSErrorRef error;
  if (const int reason = makeFolder(to, link == Link::follow, access_)) error = NSError::posix(reason, to);
  std::optional<FSItems> children;
  if (!error) {
    children = batch_.unlessStopped(
        [item, isTop = link == Link::follow](NSErrorRef* reason) {
          if (isTop) item->fs()->prepareToListTree(item->path(), anyNumberOfItems);
          return item->fs()->contentAtPath(item->path(), false, true, reason);
        },
        &error);
  }
  if (!children && !error) error = copyError(ENOENT, "the folder no longer exists");
  if (children) addChildren(*children, to);
  batch_.finishFolder(item->path(), to, error);
}

void ReceivingBatch::copyFile(const Item& item, const CopyBatch::FileRef& file, Link link) {
  NSErrorRef error;
  const bool isThere = receive(item, file, link, &error);
  if (!isThere && !error) error = copyError(ENOENT, "no such file or folder");
  batch_.finishFile(file, isThere ? nullptr : error);
}

bool ReceivingBatch::receive(const Item& item, const CopyBatch::FileRef& file, Link link, NSErrorRef* error) {
  const auto place = fileTarget(file->to, link, error);
  if (!place) return false;
  return item->fs()->fetchFile(*item, *NSURL::fileURLWithPath(*place), access_, batch_.progressOf(file),
                               error);
}

}  // namespace kzv::copy
