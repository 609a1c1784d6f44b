#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "core/ProgressCallback.h"
#include "foundation/Descriptor.h"
#include "foundation/NSError.h"
#include "foundation/NSURL.h"

class FSPlugin;

/// Called repeatedly during a read, on the reading thread; false stops it. May be empty.
using ShouldContinue = std::function<bool()>;

/// Reads one version of a file by ranges, also after the file was replaced, moved or deleted. Created by
/// FSPlugin::openReader. Any thread, several concurrently.
class FSReader {
 public:
  FSReader() = default;
  FSReader(const FSReader&) = delete;
  FSReader& operator=(const FSReader&) = delete;
  virtual ~FSReader();

  /// The size of the version in bytes. Does not block.
  virtual std::uint64_t size() const = 0;
  /// As FSItem::version; empty on volumes without versions.
  virtual const std::string& version() const = 0;
  /// Fills `buffer` with the bytes from `offset` on. Blocks until they are available.
  /// @return the number of bytes read: less than the buffer's size only at the end. Nothing on failure, with
  /// an error as from other FSPlugin operations, CanceledByUserErrorDomain after a stop.
  virtual std::optional<std::size_t> read(std::uint64_t offset, std::span<std::byte> buffer,
                                          const ShouldContinue& shouldContinue, NSErrorRef* error) = 0;
  /// A descriptor of a local file with the whole version, for hosts that can pass bytes on without copying
  /// them. Valid while this lives; must not be closed. -1: there is none, use read().
  virtual int localDescriptor() const { return -1; }
};

/// A version without bytes, for which nothing is fetched.
class EmptyReader final : public FSReader {
 public:
  explicit EmptyReader(std::string version) : version_(std::move(version)) {}
  std::uint64_t size() const override { return 0; }
  const std::string& version() const override { return version_; }
  std::optional<std::size_t> read(std::uint64_t /*offset*/, std::span<std::byte> /*buffer*/,
                                  const ShouldContinue& /*shouldContinue*/, NSErrorRef* /*error*/) override {
    return 0;
  }

 private:
  const std::string version_;
};

/// A reader of a local copy from requestFileUrl, which the destructor releases.
class LocalCopyReader final : public FSReader {
 public:
  /// Takes over the use of `copy`.
  /// @return null with an NSPOSIXErrorDomain error when it cannot be opened; it has been released then.
  static std::shared_ptr<FSReader> open(std::shared_ptr<FSPlugin> volume, std::shared_ptr<NSURL> copy,
                                        std::string version, NSErrorRef* error);
  LocalCopyReader(std::shared_ptr<FSPlugin> volume, std::shared_ptr<NSURL> copy, std::string version,
                  Descriptor file, std::uint64_t sizeBytes);
  ~LocalCopyReader() override;

  std::uint64_t size() const override { return sizeBytes_; }
  const std::string& version() const override { return version_; }
  std::optional<std::size_t> read(std::uint64_t offset, std::span<std::byte> buffer,
                                  const ShouldContinue& shouldContinue, NSErrorRef* error) override;
  int localDescriptor() const override { return file_.number(); }

 private:
  const std::shared_ptr<FSPlugin> volume_;
  const std::shared_ptr<NSURL> copy_;
  const std::string version_;
  const Descriptor file_;
  const std::uint64_t sizeBytes_;
};
