#include "json/JsonOutput.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "json/JsonText.h"

namespace {
// The room is filled with zeros before it is written to: little enough at a time to be in the cache still.
constexpr std::size_t leastGrowthBytes = 112;
constexpr std::size_t mostGrowthBytes = 16'384;
}  // namespace

void JsonOutput::grow(std::size_t sizeBytes) {
  const std::size_t written = this->sizeBytes();
  const std::size_t growthBytes = std::clamp(written, leastGrowthBytes, mostGrowthBytes);
  text_.resize(written + std::max(sizeBytes, growthBytes));
  next_ = text_.data() + written;
  end_ = text_.data() + text_.size();
}

void JsonOutput::foresee(std::size_t aheadBytes) {
  const std::size_t written = sizeBytes();
  text_.reserve(written + aheadBytes);
  next_ = text_.data() + written;
  end_ = text_.data() + text_.size();
}

void JsonOutput::addRepeated(std::size_t count, char byte) { next_ = std::fill_n(room(count), count, byte); }

void JsonOutput::addQuoted(std::string_view text) {
  char* const first = room(text.size() + 2);
  first[0] = '"';
  if (copyPlain(text, first + 1)) {
    first[text.size() + 1] = '"';
    next_ = first + text.size() + 2;
    return;
  }
  add('"');
  for (;;) {
    const std::size_t plainBytes = plainRun(text).sizeBytes;
    add(text.substr(0, plainBytes));
    if (plainBytes == text.size()) break;
    addEscaped(text[plainBytes]);
    text.remove_prefix(plainBytes + 1);
  }
  add('"');
}

void JsonOutput::addEscaped(char byte) {
  switch (byte) {
    case '"':
      return add("\\\"");
    case '\\':
      return add("\\\\");
    case '\b':
      return add("\\b");
    case '\t':
      return add("\\t");
    case '\n':
      return add("\\n");
    case '\f':
      return add("\\f");
    case '\r':
      return add("\\r");
    default:
      add(fmt::format("\\u{:04x}", static_cast<unsigned char>(byte)));
  }
}
