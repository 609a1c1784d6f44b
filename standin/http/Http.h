#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kzv::standin {

/// Name and value of each header field, in order of arrival or sending.
using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

/// Body bytes received and sent so far in one exchange. Thread-safe.
struct TransferCount {
  std::atomic<std::uint64_t> bytesIn{0};
  std::atomic<std::uint64_t> bytesOut{0};
};

/// Receives a request body piece by piece; returns false to stop reading.
using BodySink = std::function<bool(std::string_view)>;

/// A request whose head has been received. For the connection's thread only.
struct HttpRequest {
  std::string method;
  /// Not percent-decoded; without the query.
  std::string path;
  /// Not percent-decoded; without the "?".
  std::string query;
  /// Values are the field's bytes without surrounding white space.
  HttpHeaders headers;
  /// The client is on this machine.
  bool fromLoopback = false;
  /// The port that the client connected to.
  int localPort = 0;
  std::shared_ptr<TransferCount> transfer = std::make_shared<TransferCount>();

  /// Reads the body from the connection into the sink. May be called once.
  /// @return false when the connection failed or the sink stopped; the connection is then closed after the
  /// answer.
  std::function<bool(const BodySink&)> readBody;

  /// The first value of a header field; names are compared without regard to ASCII case.
  std::optional<std::string_view> header(std::string_view name) const;
};

/// An answer's body that is produced while it is sent.
struct BodyStream {
  std::uint64_t sizeBytes = 0;
  /// Returns up to `size` bytes from `offset` on, at least one before the end.
  std::function<std::string(std::uint64_t offset, std::size_t size)> read;
};

/// How to continue after a piece of the body has been sent.
enum class AfterPiece {
  proceed,
  reset,  // close it with RST
  stall,  // send nothing more until the client closes it or the server stops
};

/// An injected failure of one answer.
struct AnswerFault {
  /// Reset the connection instead of answering.
  bool dropAnswer = false;
  /// Called with each piece of the body before it is sent; may change or shorten it. Empty: nothing to do.
  std::function<AfterPiece(std::uint64_t offset, std::string& piece)> onPiece;
};

struct HttpResponse {
  int status = 200;
  /// Empty for an answer without a body.
  std::string contentType;
  HttpHeaders headers;
  std::string body;
  /// Used instead of `body`.
  std::optional<BodyStream> stream;
  std::optional<AnswerFault> fault;

  std::uint64_t sizeBytes() const { return stream ? stream->sizeBytes : body.size(); }
};

/// Produces the answer to a request; called on the connection's thread, may block, must not throw.
using HttpHandler = std::function<void(HttpRequest&, HttpResponse&)>;

/// Compares ignoring ASCII case, as for header names.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

}  // namespace kzv::standin
