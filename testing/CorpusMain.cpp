// Runs a fuzz target over its corpus without a fuzzer: every file of the folders given, whole and cut off at
// every length, since a reader meets nothing as often as an end that comes too early. Ends with a crash or
// the target's own abort; 0 when all went well.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

/// Longer inputs are cut at so many places only.
constexpr std::size_t cuts = 500;

void runAt(const std::string& bytes, std::size_t size) {
  // A copy of exactly that size, so that a sanitizer sees every read behind it.
  const std::vector<std::uint8_t> input(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int argc, char** argv) {
  int files = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string bytes{std::istreambuf_iterator<char>(file), {}};
      const std::size_t step = bytes.size() / cuts + 1;
      for (std::size_t size = 0; size < bytes.size(); size += step) runAt(bytes, size);
      runAt(bytes, bytes.size());
      ++files;
    }
  }
  std::printf("%d files of the corpus\n", files);
  return files > 0 ? 0 : 1;
}
