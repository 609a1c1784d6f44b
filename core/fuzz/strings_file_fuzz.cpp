// A strings file: entries or the numbers of the lines that are none.
#include <algorithm>
#include <cstdint>
#include <string_view>

#include "core/StringsFile.h"
#include "testing/FuzzInvariant.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<std::size_t> problems;
  const StringsTable table = parseStringsFile(text, &problems);
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  for (const std::size_t line : problems) requireThat(line >= 1 && line <= lines, "a problem has its line");
  requireThat(table.size() <= size / 2, "an entry takes some text");
  return 0;
}
