#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "core/ProgressCallback.h"
#include "foundation/Descriptor.h"
#include "foundation/NSError.h"

/// The local file of one upload. Where the file system reports another size than can be read (procfs, sysfs),
/// the content is first copied into an unnamed temporary file. One thread.
class UploadSource {
 public:
  /// Opens the regular file at `path`. Blocks for the disk.
  /// @param progress  may be empty; asked now and then while a copy is made, with nothing done yet; false
  ///                  stops (CanceledByUserErrorDomain, -1).
  /// @return null with the error, in NSPOSIXErrorDomain, when there is no regular file or it cannot be read.
  static std::unique_ptr<UploadSource> open(const std::string& path, const ProgressCallback& progress,
                                            NSErrorRef* error);

  /// What to send: the file, or the copy for as long as this object lives.
  const std::string& path() const noexcept { return path_; }
  std::uint64_t sizeBytes() const noexcept { return sizeBytes_; }
  /// As fileVersion told it when the file was opened.
  const std::string& version() const noexcept { return version_; }
  /// Whether another version lies at the path now. A file that has been removed has not changed.
  bool hasChanged() const;

 private:
  UploadSource(std::string path, std::uint64_t sizeBytes, std::string version);
  static std::unique_ptr<UploadSource> copyOf(int file, const std::string& path,
                                              const ProgressCallback& progress, NSErrorRef* error);

  const std::string path_;
  const std::uint64_t sizeBytes_;
  const std::string version_;
  Descriptor copy_;  // closed: the file itself is sent
};
