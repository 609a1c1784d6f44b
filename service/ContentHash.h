#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace kzv::service {

/// The service's content hash, computed while bytes pass by: SHA-256 of every block of 4 MiB, then SHA-256 of
/// the digests in a row (public documentation of the service, "content hash"). An object may be copied to
/// remember a state. Not thread-safe.
class ContentHash {
 public:
  static constexpr std::size_t kBlockBytes = 4194304;

  ContentHash();
  ~ContentHash();
  ContentHash(const ContentHash& other);
  ContentHash& operator=(const ContentHash& other);

  void update(std::string_view bytes);
  /// The 32 raw bytes; the object can be updated further afterwards.
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

/// Content hash of a text in memory, 32 raw bytes.
std::string contentHash(std::string_view bytes);

}  // namespace kzv::service
