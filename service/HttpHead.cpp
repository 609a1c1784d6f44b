#include "service/HttpHead.h"

#include <algorithm>
#include <charconv>

namespace kzv::service {
namespace {

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string_view takeLine(std::string_view& rest) {
  const auto end = rest.find("\r\n");
  const std::string_view line = rest.substr(0, end);
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 2);
  return line;
}

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return c > 0x20 && c < 0x7F && std::string_view("\"(),/:;<=>?@[\\]{}").find(c) == std::string_view::npos;
  });
}

bool parseRequestLine(std::string_view line, HttpRequest& request) {
  const auto first = line.find(' ');
  const auto last = line.rfind(' ');
  if (first == std::string_view::npos || last == first) return false;
  const std::string_view target = line.substr(first + 1, last - first - 1);
  const std::string_view version = line.substr(last + 1);
  const bool isVisible = std::all_of(
      target.begin(), target.end(), [](char c) { return static_cast<unsigned char>(c) > 0x20 && c != 0x7F; });
  if (target.empty() || target.front() != '/' || !isVisible) return false;
  if (version != "HTTP/1.1" && version != "HTTP/1.0") return false;
  request.method = line.substr(0, first);
  const auto mark = target.find('?');
  request.path = target.substr(0, mark);
  if (mark != std::string_view::npos) request.query = target.substr(mark + 1);
  if (version == "HTTP/1.0") request.headers.emplace_back("Connection", "close");
  return isToken(request.method);
}

bool parseField(std::string_view line, HttpRequest& request) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos || !isToken(line.substr(0, colon))) return false;
  const std::string_view value = trimmed(line.substr(colon + 1));
  // RFC 9112, 2.2: a line feed alone may end a line for whoever reads this next.
  if (value.find_first_of(std::string_view("\0\r\n", 3)) != std::string_view::npos) return false;
  request.headers.emplace_back(line.substr(0, colon), value);
  return true;
}

std::size_t count(const HttpRequest& request, std::string_view name) {
  return static_cast<std::size_t>(
      std::count_if(request.headers.begin(), request.headers.end(),
                    [&](const auto& field) { return sameHeaderName(field.first, name); }));
}

bool framingIsClear(const HttpRequest& request) {
  const std::size_t lengths = count(request, "Content-Length");
  const std::size_t codings = count(request, "Transfer-Encoding");
  if (lengths + codings > 1) return false;
  if (lengths == 1 && !request.contentLength()) return false;
  return codings == 0 || *request.header("Transfer-Encoding") == "chunked";
}

}  // namespace

bool sameHeaderName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                            [](char x, char y) { return asciiLower(x) == asciiLower(y); });
}

std::optional<std::string_view> HttpRequest::header(std::string_view name) const {
  for (const auto& [field, value] : headers) {
    if (sameHeaderName(field, name)) return std::string_view(value);
  }
  return std::nullopt;
}

std::optional<std::uint64_t> HttpRequest::contentLength() const {
  const auto text = header("Content-Length");
  if (!text) return std::nullopt;
  std::uint64_t value = 0;
  const auto end = std::from_chars(text->data(), text->data() + text->size(), value);
  if (end.ec != std::errc() || end.ptr != text->data() + text->size()) return std::nullopt;
  return value;
}

std::optional<HttpRequest> parseHead(std::string_view head) {
  HttpRequest request;
  if (!parseRequestLine(takeLine(head), request)) return std::nullopt;
  while (!head.empty()) {
    if (!parseField(takeLine(head), request)) return std::nullopt;
  }
  if (!framingIsClear(request)) return std::nullopt;
  return request;
}

std::string framingHead(const HttpRequest& request) {
  // The library reads bodies for POST only in the way needed here, and POST without framing to the end of the
  // connection, where HTTP says that there is no body.
  std::string head = (request.method == "HEAD" ? "HEAD" : "POST") + std::string(" / HTTP/1.1\r\n");
  if (request.header("Transfer-Encoding")) {
    head += "Transfer-Encoding: chunked\r\n";
  } else {
    head += "Content-Length: " + std::to_string(request.contentLength().value_or(0)) + "\r\n";
  }
  if (const auto expect = request.header("Expect")) head += "Expect: " + std::string(*expect) + "\r\n";
  const auto connection = request.header("Connection");
  if (connection && sameHeaderName(*connection, "close")) head += "Connection: close\r\n";
  return head + "\r\n";
}

}  // namespace kzv::service
