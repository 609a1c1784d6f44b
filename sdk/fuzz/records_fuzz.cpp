// Answers of the service with records in them: one record, a listing, a page of changes.
#include <boost/json.hpp>
#include <cstdint>
#include <string_view>

#include "sdk/wire/RecordReader.h"
#include "sdk/wire/ServiceJson.h"
#include "testing/FuzzInvariant.h"

namespace kzv::sdk {

namespace {

void check(const DBMetadata& record) {
  const std::string& name = record.filename();
  requireThat(record.totalBytes() >= 0, "sizes are not negative");
  requireThat(record.path().starts_with('/'), "a path is absolute");
  requireThat(name != ".." && name != "." && !name.empty(), "a name leads nowhere else");
  requireThat(name == "/" || name.find('/') == std::string::npos, "a name is one component");
  requireThat(name.find('\0') == std::string::npos, "a name ends where it ends");
}

RecordReader::RecordRef rootFolder() {
  DBMetadata::Fields fields;
  fields.path = fields.lowercasePath = "/";
  fields.isDirectory = true;
  return std::make_shared<const DBMetadata>(fields);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto document = servicejson::Document::parse({reinterpret_cast<const char*>(data), size});
  if (!document) return 0;
  const auto folder = std::make_shared<const std::string>("/Folder");
  for (const auto kind : {RecordReader::Kind::byTag, RecordReader::Kind::file, RecordReader::Kind::folder}) {
    if (const auto record = RecordReader().record(document->root(), folder, kind)) check(*record);
    RecordReader().record(document->root(), nullptr, kind);
  }
  const auto* entries = servicejson::array(document->root(), "entries");
  if (!entries) return 0;
  ListingBuilder listing("/Folder");
  if (listing.addPage(*entries) && listing.addPage(*entries)) {
    const auto contents = listing.contents();
    for (const auto& child : *contents) check(*child);
  }
  TreeBuilder tree(rootFolder());
  if (!tree.addPage(*entries) || !tree.addPage(*entries)) return 0;
  for (const auto& listed : tree.folders()) {
    check(*listed);
    for (const auto& child : *listed->contents()) {
      check(*child);
      requireThat(*child->folderPath() == listed->path(), "children share their folder's path");
    }
  }
  return 0;
}

}  // namespace kzv::sdk
