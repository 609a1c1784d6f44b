#include "standin/store/BlockHash.h"

#include <algorithm>

#include <openssl/evp.h>

#include "standin/Encoding.h"
#include "standin/Invariant.h"

namespace kzv::standin {
namespace {

std::string finish(evp_md_ctx_st* context) {
  std::string digest(32, '\0');
  requireInvariant(EVP_DigestFinal_ex(context, reinterpret_cast<unsigned char*>(digest.data()), nullptr) == 1,
                   "a SHA-256 computation must succeed");
  return digest;
}

}  // namespace

void BlockHash::ContextDeleter::operator()(evp_md_ctx_st* context) const { EVP_MD_CTX_free(context); }

BlockHash::BlockHash() : block_(EVP_MD_CTX_new()) {
  requireInvariant(EVP_DigestInit_ex(block_.get(), EVP_sha256(), nullptr) == 1, "SHA-256 is available");
}

BlockHash::~BlockHash() = default;

BlockHash::BlockHash(const BlockHash& other) : BlockHash() { *this = other; }

BlockHash& BlockHash::operator=(const BlockHash& other) {
  if (this == &other) return *this;
  requireInvariant(EVP_MD_CTX_copy_ex(block_.get(), other.block_.get()) == 1,
                   "a SHA-256 state must be copyable");
  blockBytes_ = other.blockBytes_;
  digests_ = other.digests_;
  sizeBytes_ = other.sizeBytes_;
  return *this;
}

void BlockHash::update(std::string_view bytes) {
  sizeBytes_ += bytes.size();
  while (!bytes.empty()) {
    const std::size_t count = std::min(bytes.size(), kBlockBytes - blockBytes_);
    EVP_DigestUpdate(block_.get(), bytes.data(), count);
    blockBytes_ += count;
    bytes.remove_prefix(count);
    if (blockBytes_ == kBlockBytes) endBlock();
  }
}

void BlockHash::endBlock() {
  digests_ += finish(block_.get());
  EVP_DigestInit_ex(block_.get(), EVP_sha256(), nullptr);
  blockBytes_ = 0;
}

std::string BlockHash::digest() const {
  if (blockBytes_ == 0) return sha256(digests_);
  BlockHash last(*this);
  last.endBlock();
  return sha256(last.digests_);
}

std::string contentHash(std::string_view bytes) {
  BlockHash hash;
  hash.update(bytes);
  return hash.digest();
}

}  // namespace kzv::standin
