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

/// Where the bytes of a request's body come from while it is being sent. All calls on the network thread.
class BodySource {
 public:
  virtual ~BodySource() = default;
  virtual std::int64_t sizeBytes() const = 0;
  /// Starts over: the request is being sent again.
  virtual bool rewind() = 0;
  /// Fills at most `capacity` bytes; 0 at the end, -1 on failure (which ends the request).
  virtual std::ptrdiff_t read(char* buffer, std::size_t capacity) = 0;
};

/// Where the body of a successful answer goes as it arrives. All calls on the network thread; false ends the
/// request. Error answers never reach it.
class BodySink {
 public:
  virtual ~BodySink() = default;
  /// An answer begins, also when a request is repeated: what was written before is void.
  /// @param result     what the service says of the body (its header Dropbox-API-Result); may be empty.
  /// @param sizeBytes  the body's length by HTTP; missing when it is not told.
  virtual bool begin(std::string_view result, std::optional<std::int64_t> sizeBytes) = 0;
  virtual bool write(std::string_view bytes) = 0;
  /// After the last byte, or after one of the above has said false: whether the body is another one than
  /// the service announced. Another try may then bring the right one.
  virtual bool isDamaged() = 0;
};

struct HttpRequest {
  std::string url;
  std::vector<std::string> headers;    // "Name: value"; may hold a token, so never logged
  std::string body;                    // sent when there is no source
  std::shared_ptr<BodySource> source;  // null: `body`
  std::shared_ptr<BodySink> sink;      // null: the answer's body is kept in memory
  /// Set for a request whose answer may take minutes to begin: then this bounds the whole exchange, and
  /// silence alone is no error.
  std::optional<std::chrono::seconds> timeLimit{};
};

/// What came back. An HTTP error status is an answer like any other at this level.
struct HttpResponse {
  int curlCode = 0;   // CURLcode; anything but CURLE_OK is a failure of transport
  long status = 0;    // 0: no status line arrived
  int timesSent = 0;  // libcurl sends again by itself what it sent on a kept connection that turns out dead
  std::string body;
  std::string requestId;                          // X-Dropbox-Request-Id
  std::string apiResult;                          // Dropbox-API-Result
  std::optional<std::int64_t> retryAfterSeconds;  // Retry-After
  bool isDamaged = false;                         // as the sink says

  bool isSuccess() const noexcept { return curlCode == 0 && !isDamaged && status >= 200 && status < 300; }
};
