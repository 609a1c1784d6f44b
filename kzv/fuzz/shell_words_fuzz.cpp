// A line of the shell: taken apart, and any text quoted so that it reads as itself.
#include <cstdint>
#include <string_view>

#include "kzv/shell/LineWords.h"
#include "testing/FuzzInvariant.h"

namespace kzv::cli {

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);
  const LineWords words = LineWords::from(line);
  std::size_t end = 0;
  for (const LineWords::Word& word : words.words) {
    requireThat(word.start >= end && word.start < size, "words come one after another");
    end = word.start + 1;
  }
  NSErrorRef error;
  requireThat(splitLine(line, &error).has_value() == (error == nullptr), "a line is split or refused");
  for (const Quote quote : {Quote::none, Quote::single, Quote::doubled}) {
    const std::string mark = quote == Quote::single ? "'" : quote == Quote::doubled ? "\"" : "";
    const auto split = splitLine("ls " + mark + quoted(line, quote) + mark, nullptr);
    requireThat(split && split->size() == 2 && split->back() == line, "what is quoted reads as itself");
  }
  return 0;
}

}  // namespace kzv::cli
