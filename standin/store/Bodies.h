#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "standin/OwnedFd.h"
#include "standin/store/BlockHash.h"
#include "standin/store/Store.h"

namespace kzv::standin {

/// A body being received: hashed, and buffered in memory while small, else in a temporary file, which is
/// removed with the object unless its content was stored. One thread at a time.
class IncomingBody {
 public:
  explicit IncomingBody(std::filesystem::path folder) : folder_(std::move(folder)) {}
  ~IncomingBody();
  IncomingBody(const IncomingBody&) = delete;
  IncomingBody& operator=(const IncomingBody&) = delete;

  /// Throws DatabaseError when the file cannot be written.
  void append(std::string_view bytes);
  /// Passes all bytes received so far to `sink`. @return false when `sink` did, or the file cannot be read.
  bool replay(const std::function<bool(std::string_view)>& sink) const;
  std::uint64_t sizeBytes() const { return hash_.sizeBytes(); }
  /// 32 raw bytes.
  std::string digest() const { return hash_.digest(); }

 private:
  friend std::int64_t storeContent(Store::Writer& writer, IncomingBody& body);
  void flush();

  std::filesystem::path folder_;
  BlockHash hash_;
  std::string buffer_;
  std::filesystem::path file_;
  OwnedFd fd_;
};

/// A stored body, readable at any offset, also after the file was deleted.
class BodyReader {
 public:
  /// @return absent when there is no such content.
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

/// Stores the body unless its bytes are stored already. @return the content's number; uses are counted by
/// useContent().
std::int64_t storeContent(Store::Writer& writer, IncomingBody& body);
/// The same for a complete file with known hash (32 raw bytes) and size, which is moved into the store.
std::int64_t storeContentFile(Store::Writer& writer, const std::filesystem::path& file,
                              const std::string& hash, std::uint64_t sizeBytes);
/// Stores content that is computed from `seed` when read, and so takes no space.
std::int64_t storeSyntheticContent(Store::Writer& writer, std::int64_t seed, std::uint64_t sizeBytes);

/// Adds `delta` to a content's use count; at zero it is removed, its file after the commit.
void useContent(Store::Writer& writer, std::int64_t contentId, std::int64_t delta);

}  // namespace kzv::standin
