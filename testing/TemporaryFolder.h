#pragma once
#include <string>

/// A folder of its own below the system's temporary folder, removed with everything in it at the end.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};
