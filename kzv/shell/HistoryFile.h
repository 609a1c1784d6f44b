#pragma once
#include <string>
#include <vector>

namespace kzv::cli {

/// The lines typed in former shells: one a line in a file that only its owner can read, below the state
/// folder. A disk that refuses costs the history, no more. One thread at a time; several processes may add.
class HistoryFile {
 public:
  static constexpr std::size_t limit = 1000;  // lines that are kept

  /// In the state folder; creates nothing yet.
  HistoryFile();
  /// The newest lines, the oldest of them first; cuts the file to them when it holds more. Blocks for the
  /// disk.
  std::vector<std::string> load();
  /// Appends a line, unless it is the one before again. At once, so that no later mishap loses it.
  void add(const std::string& line);

 private:
  const std::string path_;
  std::string last_;
};

}  // namespace kzv::cli
