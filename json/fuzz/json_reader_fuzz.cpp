// The reader on any bytes: a value or a reason, never both, and a chain that leads from the outermost error
// to the innermost.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "foundation/NSArray.h"
#include "foundation/NSError.h"
#include "json/QJJsonParser.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

void readWithin(std::size_t maxDepth, std::string_view text) {
  QJJsonParser parser;
  parser.setMaxDepth(maxDepth);
  NSErrorRef error;
  const id value = parser.objectWithString(text, &error);
  require((value == nullptr) == (error != nullptr));
  if (value) {
    require(!parser.errorTrace());
    require(value->kind() == NSKind::array || value->kind() == NSKind::dictionary);
    return;
  }
  const auto trace = parser.errorTrace();
  id expected = error;
  for (auto item = trace->items().rbegin(); item != trace->items().rend(); ++item) {
    require(*item == expected);
    expected = as<NSError>(*item)->detail(NSUnderlyingErrorKey);
  }
  require(!expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  readWithin(512, text);
  readWithin(0, text);
  return 0;
}
