#pragma once
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;  // of OpenSSL

namespace kzv::sdk {

/// Incremental SHA-256 (FIPS 180-4). Copies are independent. One thread at a time.
class Sha256 {
 public:
  Sha256();
  Sha256(const Sha256& other);
  Sha256& operator=(const Sha256& other);
  Sha256(Sha256&&) noexcept = default;
  Sha256& operator=(Sha256&&) noexcept = default;
  ~Sha256();

  void update(std::string_view bytes);
  /// Returns the 32 bytes of the digest and starts again.
  std::string finish();

 private:
  std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> context_;
};

/// The service's hash of a file's content: SHA-256 over the SHA-256 digests of its blocks of 4 MiB (the
/// service's public documentation, "Content hash"). Copyable in the middle of a file.
class ContentHash {
 public:
  static constexpr std::size_t blockBytes = 4UL * 1024 * 1024;
  void update(std::string_view bytes);
  /// Returns the hash as lower-case hexadecimal digits. No update() after it.
  std::string finish();

 private:
  void endBlock();

  Sha256 blocks_;
  Sha256 block_;
  std::size_t bytesInBlock_ = 0;
};

std::string hexadecimal(std::string_view bytes);

}  // namespace kzv::sdk
