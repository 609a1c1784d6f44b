#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "foundation/NSDate.h"
#include "sdk/wire/ContentHash.h"

namespace kzv::sdk {

/// A client's unfinished chunked uploads: how many bytes the service has, and their content hash, with which
/// the finished file is verified. The thread of the callbacks only.
class UnfinishedUploads {
 public:
  static constexpr std::chrono::hours lifetime{7 *
                                               24};  // of an upload session at the service, from its start

  struct Session {
    std::int64_t acknowledgedBytes = 0;
    NSDate::Time expires;
    NSDate::Time modified;  // of the local file when the last chunk was sent
    std::optional<ContentHash>
        hash;  // of the acknowledged bytes; nothing if not all were sent by this client
    // After the last chunk sent in full, in case only its answer is lost.
    std::int64_t attemptedBytes = -1;
    std::optional<ContentHash> attemptedHash;
  };

  /// Null for an upload that was started elsewhere.
  Session* find(const std::string& uploadId) {
    const auto found = sessions_.find(uploadId);
    return found == sessions_.end() ? nullptr : &found->second;
  }
  Session& acknowledge(const std::string& uploadId, std::int64_t bytes, NSDate::Time modified,
                       std::optional<ContentHash> hash);
  /// Sets the acknowledged bytes to the number that the service reports.
  void correct(const std::string& uploadId, std::int64_t bytes);
  void noteAttempt(const std::string& uploadId, std::int64_t bytes, std::optional<ContentHash> hash);
  void forget(const std::string& uploadId) { sessions_.erase(uploadId); }

 private:
  std::map<std::string, Session> sessions_;
};

}  // namespace kzv::sdk
