#include <boost/json.hpp>
#include <charconv>
#include <memory>

#include <fmt/format.h>

#include "standin/api/ApiError.h"
#include "standin/api/Items.h"
#include "standin/api/Routes.h"
#include "standin/api/Thumbnails.h"
#include "standin/store/Bodies.h"

namespace kzv::standin {
namespace {

constexpr std::int64_t kMaxPictureFileBytes = 20971520;

Route downloadRoute(std::function<Endpoint(const ArgReader&)> decode) {
  Route made;
  made.style = RouteStyle::download;
  made.scope = "files.content.read";
  made.decode = std::move(decode);
  return made;
}

// --- ranges (RFC 9110, section 14)

struct ByteRange {
  std::uint64_t first = 0;
  std::uint64_t size = 0;
};

enum class RangeVerdict { whole, part, unsatisfiable };

std::optional<std::uint64_t> number(std::string_view text) {
  std::uint64_t value = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || end.ec != std::errc() || end.ptr != text.data() + text.size()) return std::nullopt;
  return value;
}

// A header that is malformed or has several ranges is ignored, as the RFC allows.
RangeVerdict parseRange(std::string_view header, std::uint64_t total, ByteRange& range) {
  if (header.substr(0, 6) != "bytes=") return RangeVerdict::whole;
  header.remove_prefix(6);
  const auto dash = header.find('-');
  if (dash == std::string_view::npos || header.find(',') != std::string_view::npos)
    return RangeVerdict::whole;
  const auto first = number(header.substr(0, dash));
  const auto last = number(header.substr(dash + 1));
  if (!first && dash > 0) return RangeVerdict::whole;
  if (!last && dash + 1 < header.size()) return RangeVerdict::whole;
  if (!first) {
    if (!last) return RangeVerdict::whole;
    if (*last == 0 || total == 0) return RangeVerdict::unsatisfiable;
    range.size = std::min(*last, total);
    range.first = total - range.size;
    return RangeVerdict::part;
  }
  if (last && *last < *first) return RangeVerdict::whole;
  if (*first >= total) return RangeVerdict::unsatisfiable;
  range.first = *first;
  range.size = std::min(last.value_or(total - 1), total - 1) - *first + 1;
  return RangeVerdict::part;
}

bool matchesEtag(std::string_view header, std::string_view etag) {
  return header == "*" || header.find(etag) != std::string_view::npos;
}

// --- download

BodyReader openBody(Call& call, Database& database, const Entry& entry) {
  auto body = BodyReader::open(call.state.store, database, entry.content());
  // The file may have been removed after the snapshot was taken.
  if (!body) failEndpoint({"path", "not_found"});
  return std::move(*body);
}

void sendBytes(Call& call, BodyReader opened, const std::string& etag, const std::string& resultJson) {
  const auto body = std::make_shared<BodyReader>(std::move(opened));
  HttpResponse& response = call.response;
  response = {};
  response.headers = {{"ETag", etag}, {"Cache-Control", "no-cache"}, {"Pragma", "no-cache"}};
  if (const auto known = call.request.header("If-None-Match"); known && matchesEtag(*known, etag)) {
    response.status = 304;
    return;
  }
  ByteRange range{0, body->sizeBytes()};
  const auto asked = call.request.header("Range");
  const RangeVerdict verdict = asked ? parseRange(*asked, body->sizeBytes(), range) : RangeVerdict::whole;
  if (verdict == RangeVerdict::unsatisfiable) {
    response = textResponse(416, "The range is outside the file.");
    response.headers.emplace_back("Content-Range", fmt::format("bytes */{}", body->sizeBytes()));
    return;
  }
  if (verdict == RangeVerdict::part) {
    response.status = 206;
    response.headers.emplace_back(
        "Content-Range",
        fmt::format("bytes {}-{}/{}", range.first, range.first + range.size - 1, body->sizeBytes()));
  }
  response.contentType = "application/octet-stream";
  response.headers.emplace_back("Accept-Ranges", "bytes");
  response.headers.emplace_back("Original-Content-Length", std::to_string(body->sizeBytes()));
  response.headers.emplace_back("Dropbox-API-Result", asciiJson(resultJson));
  response.stream = BodyStream{range.size, [body, range](std::uint64_t offset, std::size_t size) {
                                 return body->read(range.first + offset, size);
                               }};
}

void download(Call& call, const std::string& path) {
  Store::Reader lease(call.state.store);
  const Tree tree(lease.database(), call.root.tree);
  const Located located = locate(call, tree, path, "path");
  if (!located.entry) failEndpoint({"path", "not_found"});
  const Entry& entry = *located.entry;
  if (entry.isFolder()) failEndpoint({"path", "not_file"});
  const std::string etag = "\"" + revText(entry.rev(), call.root.tree) + "\"";
  sendBytes(call, openBody(call, lease.database(), entry), etag,
            ItemWriter(call.state, located.root).json(entry, false));
}

Endpoint decodeDownload(const ArgReader& reader) {
  std::string path = reader.path("path", PathForm::read);
  if (const auto rev = reader.optionalString("rev")) {
    path = "rev:" + *rev;
    if (!matchesPathForm(path, PathForm::read)) reader.fail("rev", "did not match pattern '[0-9a-f]{9,}'");
  }
  reader.done();
  return [path](Call& call) { download(call, path); };
}

// --- get_thumbnail_v2

struct ThumbnailArg {
  std::string path;
  ThumbnailRequest request;
};

void decodeResource(const ArgReader& reader, ThumbnailArg& arg) {
  const ArgReader resource = reader.requiredObject("resource");
  const std::string tag = resource.requiredString(".tag");
  if (tag == "link") reader.fail("resource", "thumbnails of shared links are not supported by this stand-in");
  if (tag != "path") reader.fail("resource", "invalid tag '" + tag + "'");
  arg.path = resource.path("path", PathForm::read);
  resource.done();
}

void decodeBox(const std::string& tag, ThumbnailRequest& request) {
  const auto middle = tag.find('h');
  request.width = std::stoi(tag.substr(1, middle - 1));
  request.height = std::stoi(tag.substr(middle + 1));
}

ThumbnailArg decodeThumbnailArg(const ArgReader& reader) {
  ThumbnailArg arg;
  decodeResource(reader, arg);
  arg.request.format = reader.tag("format", {"jpeg", "png", "webp"}, "jpeg");
  decodeBox(reader.tag("size",
                       {"w32h32", "w64h64", "w128h128", "w256h256", "w480h320", "w640h480", "w960h640",
                        "w1024h768", "w2048h1536"},
                       "w64h64"),
            arg.request);
  const std::string mode = reader.tag("mode", {"strict", "bestfit", "fitone_bestfit", "original"}, "strict");
  if (mode == "bestfit") arg.request.mode = ThumbnailMode::bestFit;
  if (mode == "fitone_bestfit") arg.request.mode = ThumbnailMode::fitOneBestFit;
  if (mode == "original") arg.request.mode = ThumbnailMode::original;
  reader.ignore({"quality", "exclude_media_info"});
  reader.done();
  return arg;
}

void sendThumbnail(Call& call, const BodyReader& body, const ThumbnailRequest& request,
                   const std::string& resultJson) {
  std::string error;
  const auto picture = makeThumbnail(body, request, error);
  if (!picture) failEndpoint({error});
  call.response = {};
  call.response.contentType = "application/octet-stream";
  call.response.body = *picture;
  call.response.headers = {
      {"Cache-Control", "no-cache"}, {"Pragma", "no-cache"}, {"Dropbox-API-Result", asciiJson(resultJson)}};
}

void checkPictureFile(const Entry& entry) {
  if (!hasPictureName(nameOf(entry.lower()))) failEndpoint({"unsupported_extension"});
  if (entry.sizeBytes() > kMaxPictureFileBytes) failEndpoint({"unsupported_image"});
}

void thumbnail(Call& call, const ThumbnailArg& arg) {
  Store::Reader lease(call.state.store);
  const Tree tree(lease.database(), call.root.tree);
  const Located located = locate(call, tree, arg.path, "path");
  if (!located.entry) failEndpoint({"path", "not_found"});
  if (located.entry->isFolder()) failEndpoint({"path", "not_file"});
  checkPictureFile(*located.entry);
  JsonWriter result;
  result.beginObject()
      .key("file_metadata")
      .raw(ItemWriter(call.state, located.root).json(*located.entry, false));
  result.endObject();
  sendThumbnail(call, openBody(call, lease.database(), *located.entry), arg.request, result.text());
}

Endpoint decodeThumbnail(const ArgReader& reader) {
  return [arg = decodeThumbnailArg(reader)](Call& call) { thumbnail(call, arg); };
}

}  // namespace

void addDownloadRoutes(RouteTable& table) {
  table.api["files/download"] = downloadRoute(decodeDownload);
  table.api["files/get_thumbnail_v2"] = downloadRoute(decodeThumbnail);
}

}  // namespace kzv::standin
