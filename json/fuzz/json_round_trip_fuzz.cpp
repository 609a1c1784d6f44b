// What has been read can be written in every layout, and reads back as an equal value.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "json/QJJsonParser.h"
#include "json/QJJsonWriter.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  QJJsonParser parser;
  const id value = parser.objectWithString(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!value) return 0;
  for (const bool isReadable : {false, true}) {
    for (const bool isSorted : {false, true}) {
      QJJsonWriter writer;
      writer.setHumanReadable(isReadable);
      writer.setSortKeys(isSorted);
      const auto text = writer.stringWithObject(value);
      require(text.has_value() && !writer.errorTrace());
      const id again = parser.objectWithString(*text);
      require(isEqual(value, again) && isEqual(again, value));
      require(writer.stringWithObject(again) == text);
    }
  }
  return 0;
}
