// A request's argument: JSON of any shape, read field by field as the routes do it.
#include <boost/json.hpp>
#include <cstdint>
#include <string_view>

#include "standin/api/ApiError.h"
#include "standin/api/ArgReader.h"
#include "standin/store/NormalPath.h"
#include "testing/FuzzInvariant.h"

namespace {

using namespace kzv::standin;

/// Runs one reading; to be refused is fine, any other exception is not.
template <class Read>
void reading(Read read) {
  try {
    read();
  } catch (const BadArgument& refusal) {
    requireThat(!refusal.detail().empty(), "a refusal says why");
  }
}

void readFields(const ArgReader& reader) {
  for (const auto form : {PathForm::read, PathForm::rootOrId, PathForm::writeOrId, PathForm::write}) {
    reading([&] { reader.path("path", form); });
    reading([&] { reader.optionalPath("from_path", form); });
  }
  reading([&] { reader.requiredString("cursor"); });
  reading([&] { reader.optionalString("query"); });
  reading([&] { reader.boolean("recursive", false); });
  reading([&] { reader.requiredUnsigned("limit", 1, 2000); });
  reading([&] { reader.optionalUnsigned("offset", 0, 1ULL << 62); });
  reading([&] { reader.optionalTime("client_modified"); });
  reading([&] { reader.optionalHash("content_hash"); });
  reading([&] { reader.tag("mode", {"add", "overwrite", "update"}, "add"); });
  reading([&] { reader.strings("names"); });
  reading([&] { reader.done(); });
}

void readPath(const ArgReader& reader) {
  NormalPath path;
  const std::string text = reader.requiredString("path");
  if (normalisePath(text, {}, path) == PathVerdict::malformed) return;
  for (const std::string& form : {path.display, path.lower}) {
    requireThat(form.empty() || (form.starts_with('/') && !form.ends_with('/')), "a path is normal");
    requireThat(form.find("//") == std::string::npos, "a path has no empty component");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace json = boost::json;
  json::error_code problem;
  const json::value value =
      json::parse(json::string_view(reinterpret_cast<const char*>(data), size), problem);
  if (problem) return 0;
  for (const bool strict : {false, true}) {
    reading([&] {
      const ArgReader reader(value, strict);
      readFields(reader);
      reading([&] { readPath(reader); });
      reading([&] { readFields(reader.requiredObject("commit")); });
      reading([&] {
        for (const ArgReader& entry : reader.requiredObjects("entries", 10)) readFields(entry);
      });
    });
  }
  return 0;
}
