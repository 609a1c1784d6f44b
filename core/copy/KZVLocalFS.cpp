#include "core/copy/KZVLocalFS.h"

#include "core/copy/ReceivingBatch.h"
#include "core/copy/SendingBatch.h"

KZVLocalFS& KZVLocalFS::shared() {
  static auto& disk = *new KZVLocalFS;
  return disk;
}

bool KZVLocalFS::writeFiles(const KZVBatchId& batchId, const FSItems& fsItems, const std::string& path,
                            const CurrentProgress& currentProgress, const ProgressCallback& totalProgress,
                            const ItemCopied& itemCopied, NSErrorRef* error, LocalAccess access) {
  kzv::copy::ReceivingBatch batch(batchId, {currentProgress, totalProgress, itemCopied}, access);
  return batch.run(fsItems, path, error);
}

bool KZVLocalFS::sendFiles(const KZVBatchId& batchId, const std::string& localPath,
                           const std::shared_ptr<FSPlugin>& volume, const std::string& remotePath,
                           const CurrentProgress& currentProgress, const ProgressCallback& totalProgress,
                           const ItemCopied& itemCopied, NSErrorRef* error) {
  kzv::copy::SendingBatch batch(batchId, {currentProgress, totalProgress, itemCopied}, volume);
  return batch.run(localPath, remotePath, error);
}

std::optional<kzv::copy::CopyCounts> KZVLocalFS::counts(const KZVBatchId& batchId) {
  return kzv::copy::CopyBatch::countsOf(batchId);
}
