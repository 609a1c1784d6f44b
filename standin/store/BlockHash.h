#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace kzv::standin {

/// The service's content hash, computed incrementally: SHA-256 of every block of 4 MiB, then SHA-256 of the
/// concatenated digests (public documentation of the service, "content hash"). Copyable, to keep an
/// intermediate state. Not thread-safe.
class BlockHash {
 public:
  static constexpr std::size_t kBlockBytes = 4194304;

  BlockHash();
  ~BlockHash();
  BlockHash(const BlockHash& other);
  BlockHash& operator=(const BlockHash& other);

  void update(std::string_view bytes);
  /// 32 raw bytes; more updates may follow.
  std::string digest() const;
  std::uint64_t sizeBytes() const { return sizeBytes_; }

 private:
  struct ContextDeleter {
    void operator()(evp_md_ctx_st* context) const;
  };
  using Context = std::unique_ptr<evp_md_ctx_st, ContextDeleter>;

  void endBlock();

  Context block_;
  std::size_t blockBytes_ = 0;
  std::string digests_;
  std::uint64_t sizeBytes_ = 0;
};

/// Content hash of bytes in memory, 32 raw bytes.
std::string contentHash(std::string_view bytes);

}  // namespace kzv::standin
