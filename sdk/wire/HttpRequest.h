#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kzv::sdk {

/// Source of a request's body. All calls on the network thread.
class BodySource {
 public:
  virtual ~BodySource() = default;
  virtual std::int64_t sizeBytes() const = 0;
  /// Starts over: the request is being sent again.
  virtual bool rewind() = 0;
  /// Fills at most `capacity` bytes; 0 at the end, -1 on failure (which ends the request).
  virtual std::ptrdiff_t read(char* buffer, std::size_t capacity) = 0;
};

/// Sink for the body of a successful answer. All calls on the network thread; false ends the request. Bodies
/// of error answers are not passed to it.
class BodySink {
 public:
  virtual ~BodySink() = default;
  /// An answer starts. When a request is repeated, earlier bytes must be discarded.
  /// @param result     the header Dropbox-API-Result, which describes the body; may be empty.
  /// @param sizeBytes  the Content-Length, if any.
  virtual bool begin(std::string_view result, std::optional<std::int64_t> sizeBytes) = 0;
  virtual bool write(std::string_view bytes) = 0;
  /// Called after the last byte, or after one of the above returned false: whether the body is not the
  /// announced one. Repeating the request may help then.
  virtual bool isDamaged() = 0;
};

struct HttpRequest {
  std::string url;
  std::vector<std::string> headers;    // "Name: value"; may hold a token, so never logged
  std::string body;                    // sent when there is no source
  std::shared_ptr<BodySource> source;  // null: `body`
  std::shared_ptr<BodySink> sink;      // null: the answer's body is kept in memory
  /// Set for a request whose answer may take minutes (a long poll): limits the whole exchange, and silence is
  /// no error.
  std::optional<std::chrono::seconds> timeLimit{};
};

/// The outcome of an exchange. At this level an HTTP error status is an ordinary answer.
struct HttpResponse {
  int curlCode = 0;   // CURLcode; anything but CURLE_OK is a transport failure
  long status = 0;    // 0: no status line arrived
  int timesSent = 0;  // libcurl itself sends again after a reused connection turns out to be closed
  std::string body;
  std::string requestId;                          // X-Dropbox-Request-Id
  std::optional<std::int64_t> retryAfterSeconds;  // Retry-After
  bool isDamaged = false;                         // from the sink

  bool isSuccess() const noexcept { return curlCode == 0 && !isDamaged && status >= 200 && status < 300; }
};

}  // namespace kzv::sdk
