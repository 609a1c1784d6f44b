#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "service/ContentHash.h"
#include "service/Store.h"

namespace kzv::service {

/// A file descriptor that closes itself.
class OwnedFd {
 public:
  explicit OwnedFd(int fd = -1) : fd_(fd) {}
  ~OwnedFd();
  OwnedFd(OwnedFd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  OwnedFd& operator=(OwnedFd&& other) noexcept;
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }

 private:
  int fd_;
};

/// Bytes on their way in: hashed as they pass, in memory while few, else in a temporary file, which
/// disappears with the object unless its content was stored. Flat memory for any size. Used by one thread at
/// a time.
class IncomingBody {
 public:
  explicit IncomingBody(std::filesystem::path folder) : folder_(std::move(folder)) {}
  ~IncomingBody();
  IncomingBody(const IncomingBody&) = delete;
  IncomingBody& operator=(const IncomingBody&) = delete;

  /// Throws DatabaseError when the disk refuses.
  void append(std::string_view bytes);
  /// Hands over all bytes received so far. @return false when `sink` did, or the file cannot be read.
  bool replay(const std::function<bool(std::string_view)>& sink) const;
  std::uint64_t sizeBytes() const { return hash_.sizeBytes(); }
  /// 32 raw bytes.
  std::string digest() const { return hash_.digest(); }

 private:
  friend std::int64_t storeContent(Store::Writer& writer, IncomingBody& body);
  void flush();

  std::filesystem::path folder_;
  ContentHash hash_;
  std::string buffer_;
  std::filesystem::path file_;
  OwnedFd fd_;
};

/// A stored body opened for reading at any offset. It stays readable when the file is deleted meanwhile.
class BodyReader {
 public:
  /// @return absent when there is no such content (any more).
  static std::optional<BodyReader> open(Store& store, Database& database, std::int64_t contentId);

  std::uint64_t sizeBytes() const { return sizeBytes_; }
  /// Up to `size` bytes from `offset` on; fewer only at the end. Throws DatabaseError on a read error.
  std::string read(std::uint64_t offset, std::size_t size) const;

 private:
  std::uint64_t sizeBytes_ = 0;
  std::optional<std::int64_t> seed_;
  std::string inline_;
  OwnedFd fd_;
};

/// Stores the body if its bytes are not known yet. @return the number of the content; not yet counted as
/// used.
std::int64_t storeContent(Store::Writer& writer, IncomingBody& body);
/// The same for a complete file that may be renamed away, with its known hash (32 raw bytes) and size.
std::int64_t storeContentFile(Store::Writer& writer, const std::filesystem::path& file,
                              const std::string& hash, std::uint64_t sizeBytes);
/// Content computed from `seed` when it is read: costs no space, whatever its size.
std::int64_t storeSyntheticContent(Store::Writer& writer, std::int64_t seed, std::uint64_t sizeBytes);

/// Counts `delta` more uses of a content; at zero it is removed, its file after the commit.
void useContent(Store::Writer& writer, std::int64_t contentId, std::int64_t delta);

}  // namespace kzv::service
