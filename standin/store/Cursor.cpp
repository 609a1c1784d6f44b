#include "standin/store/Cursor.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "standin/Encoding.h"

namespace kzv::standin {
namespace {

constexpr std::size_t kSignatureBytes = 12;
constexpr char kVersion = 1;

void put(std::string& out, std::int64_t value) {
  auto rest = static_cast<std::uint64_t>(value);
  for (; rest >= 0x80; rest >>= 7) out += static_cast<char>(rest | 0x80);
  out += static_cast<char>(rest);
}

void put(std::string& out, std::string_view text) {
  put(out, static_cast<std::int64_t>(text.size()));
  out += text;
}

bool take(std::string_view& in, std::int64_t& value) {
  std::uint64_t made = 0;
  for (int shift = 0; shift < 64 && !in.empty(); shift += 7) {
    const auto byte = static_cast<unsigned char>(in.front());
    in.remove_prefix(1);
    made |= static_cast<std::uint64_t>(byte & 0x7F) << shift;
    if (byte < 0x80) {
      value = static_cast<std::int64_t>(made);
      return true;
    }
  }
  return false;
}

bool take(std::string_view& in, std::string& text) {
  std::int64_t size = 0;
  if (!take(in, size) || size < 0 || static_cast<std::uint64_t>(size) > in.size()) return false;
  text = in.substr(0, static_cast<std::size_t>(size));
  in.remove_prefix(static_cast<std::size_t>(size));
  return true;
}

std::string signature(std::string_view payload, std::string_view secret) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
       reinterpret_cast<const unsigned char*>(payload.data()), payload.size(), digest, nullptr);
  return {reinterpret_cast<const char*>(digest), kSignatureBytes};
}

}  // namespace

std::string seal(std::string_view kind, std::string_view payload, std::string_view secret) {
  std::string signedText(kind);
  signedText += payload;
  return std::string(kind) + base64UrlEncode(signature(signedText, secret) + std::string(payload));
}

bool unseal(std::string_view kind, std::string_view text, std::string_view secret, std::string& payload) {
  if (text.substr(0, kind.size()) != kind) return false;
  const auto bytes = base64UrlDecode(text.substr(kind.size()));
  if (!bytes || bytes->size() < kSignatureBytes) return false;
  payload = bytes->substr(kSignatureBytes);
  return signature(std::string(kind) + payload, secret) == bytes->substr(0, kSignatureBytes);
}

std::string encodeCursor(const Cursor& cursor, std::string_view secret) {
  std::string payload(1, kVersion);
  put(payload, cursor.account);
  put(payload, cursor.namespaceId);
  put(payload, cursor.epoch);
  put(payload, static_cast<std::int64_t>(cursor.phase));
  put(payload, (cursor.recursive ? 1 : 0) + (cursor.includeDeleted ? 2 : 0));
  put(payload, cursor.limit);
  put(payload, cursor.folderId);
  put(payload, cursor.folderLower);
  put(payload, cursor.seq);
  put(payload, cursor.afterId);
  put(payload, cursor.afterPath);
  return seal("AA", payload, secret);
}

bool decodeCursor(std::string_view text, std::string_view secret, Cursor& cursor) {
  std::string bytes;
  if (!unseal("AA", text, secret, bytes)) return false;
  std::string_view payload = bytes;
  if (payload.empty() || payload.front() != kVersion) return false;
  payload.remove_prefix(1);
  std::int64_t phase = 0;
  std::int64_t flags = 0;
  const bool complete = take(payload, cursor.account) && take(payload, cursor.namespaceId) &&
                        take(payload, cursor.epoch) && take(payload, phase) && take(payload, flags) &&
                        take(payload, cursor.limit) && take(payload, cursor.folderId) &&
                        take(payload, cursor.folderLower) && take(payload, cursor.seq) &&
                        take(payload, cursor.afterId) && take(payload, cursor.afterPath);
  cursor.phase = static_cast<CursorPhase>(phase);
  cursor.recursive = (flags & 1) != 0;
  cursor.includeDeleted = (flags & 2) != 0;
  return complete;
}

}  // namespace kzv::standin
