#include "testing/TemporaryFolder.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

TemporaryFolder::TemporaryFolder()
    : path_((std::filesystem::temp_directory_path() / "kzv-test-XXXXXX").string()) {
  if (!mkdtemp(path_.data())) throw std::runtime_error("cannot make a temporary folder");
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}
