#pragma once
#include <memory>
#include <string>

#include "core/FSPlugin.h"
#include "core/copy/CopyBatch.h"
#include "core/copy/LocalTarget.h"

namespace kzv::copy {

/// Copies items of file systems to the local disk; see KZVLocalFS::writeFiles. Used for one run.
class ReceivingBatch {
 public:
  ReceivingBatch(const KZVBatchId& batchId, CopyObservers observers, LocalAccess access);

  bool run(const FSItems& items, const std::string& path, NSErrorRef* error);

 private:
  using Item = std::shared_ptr<FSItem>;
  using Link = LinkAtTarget;  // at the path that the user named it is followed

  void addTop(const Item& item, const std::string& to);
  void addFile(const Item& item, const std::string& to);
  void addFolder(const Item& item, const std::string& to, Link link);
  void addChildren(const FSItems& children, const std::string& folder);
  void copyFile(const Item& item, const CopyBatch::FileRef& file, Link link);
  void copyFolder(const Item& item, const std::string& to, Link link);
  bool receive(const Item& item, const CopyBatch::FileRef& file, Link link, NSErrorRef* error);

  const LocalAccess access_;
  CopyBatch batch_;
};

}  // namespace kzv::copy
