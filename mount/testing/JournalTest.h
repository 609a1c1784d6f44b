#pragma once
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "foundation/NSLog.h"
#include "mount/journal/UploadJournal.h"
#include "testing/TemporaryFolder.h"

namespace kzv::mount {

inline std::string textOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}
inline void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

/// The journal of the account "u/1" in a folder of its own.
class JournalTest : public testing::Test {
 protected:
  JournalTest() {
    ::setenv("KZV_HOME", home.path().c_str(), 1);
    setLogLevel(NSLogLevel::off);
    reopen();
  }
  /// As the next process would.
  void reopen() {
    journal.reset();
    journal = UploadJournal::open("u/1", "/mnt", nullptr);
    ASSERT_TRUE(journal);
  }

  const TemporaryFolder home;
  std::shared_ptr<UploadJournal> journal;
};

}  // namespace kzv::mount
