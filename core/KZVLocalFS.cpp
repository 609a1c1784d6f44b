#include "core/KZVLocalFS.h"

#include "core/ReceivingBatch.h"
#include "core/SendingBatch.h"

KZVLocalFS& KZVLocalFS::shared() {
  static auto& disk = *new KZVLocalFS;
  return disk;
}

bool KZVLocalFS::writeFiles(const KZVBatchId& batchId, const FSItems& fsItems, const std::string& path,
                            const CurrentProgress& currentProgress, const ProgressCallback& totalProgress,
                            const ItemCopied& itemCopied, NSErrorRef* error, LocalAccess access) {
  ReceivingBatch batch(batchId, {currentProgress, totalProgress, itemCopied}, access);
  return batch.run(fsItems, path, error);
}

bool KZVLocalFS::sendFiles(const KZVBatchId& batchId, const std::string& localPath,
                           const std::shared_ptr<FSPlugin>& volume, const std::string& remotePath,
                           const CurrentProgress& currentProgress, const ProgressCallback& totalProgress,
                           const ItemCopied& itemCopied, NSErrorRef* error) {
  SendingBatch batch(batchId, {currentProgress, totalProgress, itemCopied}, volume);
  return batch.run(localPath, remotePath, error);
}

std::optional<CopyCounts> KZVLocalFS::counts(const KZVBatchId& batchId) {
  return CopyBatch::countsOf(batchId);
}
