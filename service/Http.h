#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kzv::service {

/// Bytes of the two bodies of one exchange, counted while they pass. Thread-safe.
struct TransferCount {
  std::atomic<std::uint64_t> bytesIn{0};
  std::atomic<std::uint64_t> bytesOut{0};
};

/// One request as it arrived. Header values are the raw bytes of the field, without surrounding blanks.
/// Used by the connection's thread only.
struct HttpRequest {
  std::string method;
  /// Still with its escapes, without the query.
  std::string path;
  /// Raw, without the "?".
  std::string query;
  std::vector<std::pair<std::string, std::string>> headers;
  bool fromLoopback = false;
  int localPort = 0;  // that the connection came in on
  std::shared_ptr<TransferCount> transfer = std::make_shared<TransferCount>();

  /// Hands the body to `sink` piece by piece; may be called once. @return false when the connection broke or
  /// the sink answered false.
  std::function<bool(const std::function<bool(std::string_view)>& sink)> readBody;

  /// First value of a header; names do not regard case.
  std::optional<std::string_view> header(std::string_view name) const;
  /// Absent with chunked transfer coding.
  std::optional<std::uint64_t> contentLength() const;
};

/// A body that is produced while it is sent.
struct BodyStream {
  std::uint64_t sizeBytes = 0;
  /// Up to `size` bytes from `offset` on, at least one before the end.
  std::function<std::string(std::uint64_t offset, std::size_t size)> read;
};

/// How an answer is spoilt on its way out, counted in bytes of the body. `happened` is called when it is
/// about to be done, so that a test can tell that it was.
struct AnswerFault {
  std::optional<std::uint64_t> resetAfter;
  std::optional<std::uint64_t> stallAfter;
  /// Offset of a byte to flip.
  std::optional<std::uint64_t> flipAt;
  /// Reset the connection instead of answering at all.
  bool dropAnswer = false;
  std::function<void()> happened;
};

struct HttpResponse {
  int status = 200;
  /// Empty for an answer without a body.
  std::string contentType;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  /// Instead of `body`.
  std::optional<BodyStream> stream;
  std::optional<AnswerFault> fault;
};

/// True when both names are equal but for ASCII case.
bool sameHeaderName(std::string_view a, std::string_view b);

}  // namespace kzv::service
