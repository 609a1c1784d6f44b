// The only unit that includes Boost.Beast, which takes seconds to compile.

#include "standin/http/HttpSession.h"

#include <algorithm>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/serializer.hpp>
#include <cstdio>
#include <exception>

#include "standin/Invariant.h"
#include "standin/http/Connection.h"

namespace kzv::standin {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using beast::error_code;

constexpr std::uint32_t kMaxHeadBytes = 262144;
constexpr std::size_t kPieceBytes = 262144;
// A body that the handler did not read is received and discarded, so that the client gets its answer; above
// this size the connection is closed instead.
constexpr std::uint64_t kMaxDiscardedBytes = 512ULL << 20;

/// Fills an HttpRequest and passes the body to a sink. Stricter than Beast where programs could disagree
/// about the length of a request.
class RequestParser : public http::basic_parser<true> {
 public:
  explicit RequestParser(HttpRequest& request) : request_(request) {
    header_limit(kMaxHeadBytes);
    body_limit(boost::none);
  }

  /// Receives the body; set while the body is parsed.
  void setSink(const BodySink* sink) { sink_ = sink; }

 private:
  void on_request_impl(http::verb, beast::string_view method, beast::string_view target, int,
                       error_code& error) override {
    if (!target.starts_with('/')) error = http::error::bad_target;
    const auto mark = std::min(target.find('?'), target.size());
    request_.method = std::string(method);
    request_.path = std::string(target.substr(0, mark));
    request_.query = std::string(target.substr(std::min(mark + 1, target.size())));
  }
  void on_field_impl(http::field name, beast::string_view nameText, beast::string_view value,
                     error_code& error) override {
    if (isHeadComplete_) return;  // a trailer of a chunked body
    if (name == http::field::content_length && request_.header("Content-Length"))
      error = http::error::multiple_content_length;
    if (name == http::field::transfer_encoding && value != "chunked")
      error = http::error::bad_transfer_encoding;
    request_.headers.emplace_back(std::string(nameText), std::string(value));
  }
  void on_header_impl(error_code&) override { isHeadComplete_ = true; }
  std::size_t on_body_impl(beast::string_view bytes, error_code& error) override {
    request_.transfer->bytesIn += bytes.size();
    if (!(*sink_)({bytes.data(), bytes.size()})) error = http::error::body_limit;
    return bytes.size();
  }
  std::size_t on_chunk_body_impl(std::uint64_t, beast::string_view bytes, error_code& error) override {
    return on_body_impl(bytes, error);
  }
  void on_response_impl(int, beast::string_view, int, error_code&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}
  void on_chunk_header_impl(std::uint64_t, beast::string_view, error_code&) override {}
  void on_finish_impl(error_code&) override {}

  HttpRequest& request_;
  const BodySink* sink_ = nullptr;
  bool isHeadComplete_ = false;
};

std::string headText(const HttpResponse& response, bool keepAlive) {
  http::response<http::empty_body> message(static_cast<http::status>(response.status), 11);
  for (const auto& [name, value] : response.headers) message.insert(name, value);
  if (!response.contentType.empty()) message.set(http::field::content_type, response.contentType);
  // The length given with 304 would be that of a body it does not have (RFC 9110, section 8.6).
  if (response.status != 304) message.content_length(response.sizeBytes());
  message.keep_alive(keepAlive);
  std::string text;
  error_code error;
  http::response_serializer<http::empty_body> serializer(message);
  serializer.next(error, [&](error_code&, const auto& buffers) { text = beast::buffers_to_string(buffers); });
  return text;
}

/// One request and its answer.
class Exchange {
 public:
  explicit Exchange(Connection& connection) : connection_(connection) {}

  /// @return false when there was no request, or a malformed one, which has been answered.
  bool readHead();
  /// @return whether the connection can be used for another request; else it has been closed.
  bool answer(const HttpHandler& handler);

 private:
  /// Parses buffered bytes and receives more when they are not enough. False on an error of either.
  bool parseMore(error_code& error);
  bool readBody(const BodySink& sink);
  void discardBody();
  AfterPiece send(const HttpResponse& response);
  bool canKeepAlive() const { return !mustClose_ && parser_.keep_alive(); }

  Connection& connection_;
  HttpRequest request_;
  RequestParser parser_{request_};
  bool isBodyRead_ = false;
  /// The rest of the request cannot be read, or the rest of the answer cannot be sent.
  bool mustClose_ = false;
};

bool Exchange::parseMore(error_code& error) {
  const std::string_view bytes = connection_.buffered();
  connection_.consume(parser_.put({bytes.data(), bytes.size()}, error));
  if (error != http::error::need_more) return !error;
  error = {};
  return connection_.receive();
}

bool Exchange::readHead() {
  if (!connection_.waitForRequest()) return false;
  connection_.startReadTimeout();
  error_code error;
  while (!parser_.is_header_done()) {
    if (parseMore(error)) continue;
    HttpResponse malformed{400, "text/plain; charset=utf-8", {}, "Malformed HTTP request", {}, {}};
    if (error) connection_.send(headText(malformed, false), malformed.body);
    return false;
  }
  return true;
}

bool Exchange::readBody(const BodySink& sink) {
  requireInvariant(!isBodyRead_, "a request body is read once");
  isBodyRead_ = true;
  parser_.setSink(&sink);
  const auto expected = request_.header("Expect");
  if (expected && equalsIgnoringCase(*expected, "100-continue") && !parser_.is_done())
    mustClose_ = !connection_.send("HTTP/1.1 100 Continue\r\n\r\n");
  error_code error;
  while (!mustClose_ && !parser_.is_done()) {
    connection_.startReadTimeout();
    const bool hasInput = !connection_.buffered().empty() || connection_.receive();
    mustClose_ = !hasInput || !parseMore(error);
  }
  parser_.setSink(nullptr);
  return !mustClose_;
}

void Exchange::discardBody() {
  std::uint64_t size = 0;
  readBody([&](std::string_view bytes) { return (size += bytes.size()) <= kMaxDiscardedBytes; });
}

bool Exchange::answer(const HttpHandler& handler) {
  request_.fromLoopback = connection_.peerIsLoopback();
  request_.localPort = connection_.localPort();
  request_.readBody = [this](const BodySink& sink) { return readBody(sink); };
  HttpResponse response;
  handler(request_, response);
  const bool isDropped = response.fault && response.fault->dropAnswer;
  if (!isDropped && !isBodyRead_) discardBody();
  switch (isDropped ? AfterPiece::reset : send(response)) {
    case AfterPiece::reset:
      connection_.reset();
      return false;
    case AfterPiece::stall:
      connection_.stall();
      return false;
    case AfterPiece::proceed:
      break;
  }
  if (canKeepAlive()) return true;
  connection_.close();
  return false;
}

// Empty when the body cannot be read any further.
std::string bodyPiece(const HttpResponse& response, std::uint64_t offset, std::uint64_t total) {
  const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(kPieceBytes, total - offset));
  if (!response.stream) return response.body.substr(static_cast<std::size_t>(offset), size);
  try {
    return response.stream->read(offset, size);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "kzv-service: cannot read a body: %s\n", failure.what());
    return {};
  }
}

AfterPiece Exchange::send(const HttpResponse& response) {
  std::string head = headText(response, canKeepAlive());
  const std::uint64_t total = request_.method == "HEAD" ? 0 : response.sizeBytes();
  AfterPiece after = AfterPiece::proceed;
  bool isSent = true;
  std::uint64_t offset = 0;
  while (isSent && offset < total && after == AfterPiece::proceed) {
    std::string piece = bodyPiece(response, offset, total);
    const std::size_t size = piece.size();
    if (size == 0) break;
    if (response.fault && response.fault->onPiece) after = response.fault->onPiece(offset, piece);
    isSent = connection_.send(head, piece);
    head.clear();
    offset += size;
    if (isSent) request_.transfer->bytesOut += piece.size();
  }
  isSent = isSent && connection_.send(head);
  mustClose_ = mustClose_ || !isSent || offset < total;
  return isSent ? after : AfterPiece::proceed;
}

}  // namespace

void serveHttp(Connection& connection, const HttpHandler& handler) {
  for (;;) {
    Exchange exchange(connection);
    if (!exchange.readHead()) break;
    if (!exchange.answer(handler)) return;
  }
  connection.close();
}

std::optional<HttpRequest> parseRequestHead(std::string_view head) {
  HttpRequest request;
  RequestParser parser(request);
  error_code error;
  parser.put({head.data(), head.size()}, error);
  if (error || !parser.is_header_done()) return std::nullopt;
  return request;
}

}  // namespace kzv::standin
