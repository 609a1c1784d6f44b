#pragma once
#include <string>
#include <vector>

namespace kzv::cli {

/// The history of the shell: a text file in the state folder that only its owner can read. Disk errors are
/// ignored. One thread at a time; several processes may append.
class HistoryFile {
 public:
  static constexpr std::size_t limit = 1000;  // lines that are kept

  /// In the state folder; creates nothing yet.
  HistoryFile();
  /// The newest lines, oldest first; truncates the file to them if it has more. Blocks for the disk.
  std::vector<std::string> load();
  /// Appends a line to the file at once, unless it repeats the one before. Blocks for the disk.
  void add(const std::string& line);

 private:
  const std::string path_;
  std::string last_;
};

}  // namespace kzv::cli
