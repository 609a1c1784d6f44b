#include "sdk/wire/ContentHash.h"

#include <algorithm>
#include <array>

#include <openssl/evp.h>

#include "foundation/Fatal.h"

namespace kzv::sdk {

namespace {

void begin(EVP_MD_CTX* context) {
  if (!context || EVP_DigestInit_ex(context, EVP_sha256(), nullptr) != 1) {
    fatalInvariant("the crypto library must support SHA-256");
  }
}

}  // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) { begin(context_.get()); }

Sha256::Sha256(const Sha256& other) : Sha256() { EVP_MD_CTX_copy_ex(context_.get(), other.context_.get()); }

Sha256& Sha256::operator=(const Sha256& other) {
  if (this != &other) EVP_MD_CTX_copy_ex(context_.get(), other.context_.get());
  return *this;
}

Sha256::~Sha256() = default;

void Sha256::update(std::string_view bytes) { EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()); }

std::string Sha256::finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  EVP_DigestFinal_ex(context_.get(), digest.data(), &size);
  begin(context_.get());
  return {reinterpret_cast<const char*>(digest.data()), size};
}

void ContentHash::update(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::string_view piece = bytes.substr(0, blockBytes - bytesInBlock_);
    block_.update(piece);
    bytesInBlock_ += piece.size();
    bytes.remove_prefix(piece.size());
    if (bytesInBlock_ == blockBytes) endBlock();
  }
}

void ContentHash::endBlock() {
  blocks_.update(block_.finish());
  bytesInBlock_ = 0;
}

std::string ContentHash::finish() {
  if (bytesInBlock_ > 0) endBlock();
  return hexadecimal(blocks_.finish());
}

std::string hexadecimal(std::string_view bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

}  // namespace kzv::sdk
