#include "kzv/shell/HistoryFile.h"

#include <algorithm>
#include <cstdint>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/Descriptor.h"
#include "foundation/NSFileManager.h"
#include "foundation/Paths.h"
#include "foundation/PrivateFiles.h"
#include "foundation/StandardFolders.h"

namespace kzv::cli {

namespace {
constexpr mode_t ownerOnly = 0600;
constexpr std::uint64_t limitBytes = std::uint64_t{16} * 1024 * 1024;
constexpr std::size_t longestLineBytes = 4096;
}  // namespace

HistoryFile::HistoryFile() : path_(appendingPathComponent(stateFolder(), "shell-history")) {}

std::vector<std::string> HistoryFile::load() {
  const auto bytes = readFile(path_, limitBytes);
  std::vector<std::string> lines;
  if (!bytes) return lines;
  for (std::size_t at = 0; at < bytes->size();) {
    const std::size_t end = std::min(bytes->find('\n', at), bytes->size());
    if (end > at) lines.push_back(bytes->substr(at, end - at));
    at = end + 1;
  }
  if (lines.size() > limit) {
    lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(limit));
    std::string kept;
    for (const std::string& line : lines) (kept += line) += '\n';
    writeFileAtomically(path_, kept, ownerOnly);
  }
  if (!lines.empty()) last_ = lines.back();
  return lines;
}

void HistoryFile::add(const std::string& line) {
  if (line == last_ || line.empty() || line.size() > longestLineBytes) return;
  makePrivateFolder(deletingLastPathComponent(path_));
  const Descriptor file(
      ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, ownerOnly));
  struct stat status {};
  const bool isUsable = file.isOpen() && ::fstat(file.number(), &status) == 0 && S_ISREG(status.st_mode);
  if (!isUsable || ::fchmod(file.number(), ownerOnly) != 0) return;
  const std::string bytes = line + "\n";
  if (::write(file.number(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size())) last_ = line;
}

}  // namespace kzv::cli
