// The reader on any bytes: a value or a reason, never both. What has been read can be written in every
// layout, and reads back as an equal value.
#include <cstdint>
#include <string_view>

#include "json/QJJsonParser.h"
#include "json/QJJsonWriter.h"
#include "testing/FuzzInvariant.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  QJJsonParser parser;
  for (const std::size_t maxDepth : {0, 512}) {
    parser.setMaxDepth(maxDepth);
    NSErrorRef error;
    const bool isRead = parser.objectWithString(text, &error) != nullptr;
    requireThat(isRead == !error, "a value or an error");
    const auto trace = parser.errorTrace();
    requireThat(isRead ? !trace : trace->items().back() == error, "the last error of the trace is reported");
  }
  const id value = parser.objectWithString(text);
  if (!value) return 0;
  for (const int layout : {0, 1, 2, 3}) {
    QJJsonWriter writer;
    writer.setHumanReadable((layout & 1) != 0);
    writer.setSortKeys((layout & 2) != 0);
    const auto written = writer.stringWithObject(value);
    requireThat(written && !writer.errorTrace(), "what was read can be written");
    const id again = parser.objectWithString(*written);
    requireThat(isEqual(value, again) && isEqual(again, value), "it reads back equal");
    requireThat(writer.stringWithObject(again) == written, "and is written the same way");
  }
  return 0;
}
