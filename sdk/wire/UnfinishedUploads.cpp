#include "sdk/wire/UnfinishedUploads.h"

#include <utility>

namespace kzv::sdk {

UnfinishedUploads::Session& UnfinishedUploads::acknowledge(const std::string& uploadId, std::int64_t bytes,
                                                           NSDate::Time modified,
                                                           std::optional<ContentHash> hash) {
  const auto [entry, isNew] = sessions_.try_emplace(uploadId);
  Session& session = entry->second;
  if (isNew) session.expires = std::chrono::system_clock::now() + lifetime;
  session.acknowledgedBytes = bytes;
  session.modified = modified;
  session.hash = std::move(hash);
  session.attemptedBytes = -1;
  session.attemptedHash.reset();
  return session;
}

void UnfinishedUploads::noteAttempt(const std::string& uploadId, std::int64_t bytes,
                                    std::optional<ContentHash> hash) {
  if (Session* session = find(uploadId)) {
    session->attemptedBytes = bytes;
    session->attemptedHash = std::move(hash);
  }
}

void UnfinishedUploads::correct(const std::string& uploadId, std::int64_t bytes) {
  Session* session = find(uploadId);
  if (!session || session->acknowledgedBytes == bytes) return;
  session->hash = session->attemptedBytes == bytes ? session->attemptedHash : std::nullopt;
  session->acknowledgedBytes = bytes;
}

}  // namespace kzv::sdk
