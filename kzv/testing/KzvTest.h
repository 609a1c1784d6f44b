#pragma once
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/KZVSupport.h"
#include "kzv/testing/Program.h"

namespace kzv::cli {

/// A volume to work on and a folder for the program's own files.
class KzvTest : public testing::Test {
 protected:
  KzvTest() {
    std::filesystem::create_directories(home_);
    folder("Documents/Sub");
    file("Documents/report.txt", 1234);
    file("Documents/timeless-note", 0);
    file("Documents/Sub/deep.txt", 5);
    folder("empty");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(tree_)) setTime(entry.path());
  }
  ~KzvTest() override { std::filesystem::remove_all(base_); }

  void folder(const std::string& path) const { std::filesystem::create_directories(tree_ / path); }
  void file(const std::string& path, std::size_t bytes) const {
    std::filesystem::create_directories((tree_ / path).parent_path());
    std::ofstream(tree_ / path) << std::string(bytes, 'x');
    setTime(tree_ / path);
  }
  static void setTime(const std::filesystem::path& path) {
    constexpr std::int64_t seconds = 1'714'555'800;  // 2024-05-01T09:30:00Z
    std::filesystem::last_write_time(
        path, std::chrono::file_clock::from_sys(std::chrono::sys_seconds(std::chrono::seconds(seconds))));
  }

  Program::Environment environment(const std::string& accounts = "u1=Ada") const {
    return {{"KZV_TEST_TREE", tree_.string()},
            {"KZV_TEST_ACCOUNTS", accounts},
            {"KZV_TEST_EVENTS", events_.string()},
            {"KZV_HOME", home_.string()}};
  }
  Program::Result run(const std::vector<std::string>& arguments, const std::string& accounts = "u1=Ada",
                      const std::string& input = {}) const {
    return Program::run(arguments, environment(accounts), input);
  }
  std::string events() const { return contentOf(events_); }

  static std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  using Tree = std::map<std::string, std::string>;
  /// What lies below a folder: path -> content; folders end in "/" and have none.
  static Tree treeAt(const std::filesystem::path& top) {
    Tree tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
      const std::string path = entry.path().lexically_relative(top).string();
      tree[entry.is_directory() ? path + "/" : path] = entry.is_directory() ? "" : contentOf(entry.path());
    }
    return tree;
  }

  const std::filesystem::path base_ =
      std::filesystem::temp_directory_path() / ("kzv-host-" + KZVSupport::uniquePathComponent());
  const std::filesystem::path tree_ = base_ / "tree";
  const std::filesystem::path home_ = base_ / "home";
  const std::filesystem::path events_ = base_ / "events";
};

}  // namespace kzv::cli
