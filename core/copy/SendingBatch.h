#pragma once
#include <memory>
#include <string>

#include "core/FSPlugin.h"
#include "core/copy/CopyBatch.h"

namespace kzv::copy {

/// Copies a file or folder of the local disk to a volume; see KZVLocalFS::sendFiles. Used for one run.
class SendingBatch {
 public:
  SendingBatch(const KZVBatchId& batchId, CopyObservers observers, std::shared_ptr<FSPlugin> volume);

  bool run(const std::string& from, const std::string& to, NSErrorRef* error);

 private:
  enum class Place { top, below };

  void send(const std::string& from, const std::string& to, Place place);
  void sendFile(const CopyBatch::FileRef& file);
  void sendFolder(const std::string& from, const std::string& to);
  bool addChildren(const std::string& from, const std::string& to, NSErrorRef* error);

  CopyBatch batch_;
  const std::shared_ptr<FSPlugin> volume_;
};

}  // namespace kzv::copy
