// The mount as a file system under load: rounds of four appenders, savers and readers here, a second device,
// kills and remounts; after each round, what the service has is compared with what was acknowledged. A few
// seconds by default; KZV_MODEL_SECONDS=600 for a long run, KZV_MODEL_SEED for the same one again.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "testing/HttpClient.h"
#include "tests/MountFixture.h"

namespace {

using Random = std::minstd_rand;

int environmentNumber(const char* name, int otherwise) {
  const char* text = std::getenv(name);
  return text ? std::atoi(text) : otherwise;
}

/// Another device of the same account, which talks to the service itself. One thread.
class SecondDevice {
 public:
  explicit SecondDevice(std::string url) : url_(std::move(url)) {}

  struct Version {
    std::string rev;
    std::string bytes;
  };
  std::optional<Version> read(const std::string& path) {
    const auto record = call("files/get_metadata", {{"path", path}});
    if (!record) return std::nullopt;
    const std::string rev(record->at("rev").as_string());
    const auto content = http_.post(url_ + "/2/files/download", "",
                                    {"Content-Type:", argument({{"path", "rev:" + rev}}), authorization});
    if (content.status != 200) return std::nullopt;
    return Version{rev, content.body};
  }
  /// Replaces exactly the version `rev`, or (empty) stores a new file; false when another one is there.
  bool write(const std::string& path, const std::string& bytes, const std::string& rev) {
    json::object commit{{"path", path}, {"autorename", false}, {"strict_conflict", true}};
    if (rev.empty()) {
      commit["mode"] = "add";
    } else {
      commit["mode"] = json::object{{".tag", "update"}, {"update", rev}};
    }
    return http_
               .post(url_ + "/2/files/upload", bytes,
                     {"Content-Type: application/octet-stream", argument(commit), authorization})
               .status == 200;
  }

 private:
  static constexpr const char* authorization = "Authorization: Bearer ada-token";
  static std::string argument(const json::object& value) {
    return "Dropbox-API-Arg: " + json::serialize(value);
  }
  std::optional<json::value> call(const std::string& route, const json::object& body) {
    const auto answer = http_.post(url_ + "/2/" + route, json::serialize(body),
                                   {"Content-Type: application/json", authorization});
    if (answer.status != 200) return std::nullopt;
    return json::parse(answer.body);
  }

  const std::string url_;
  HttpClient http_;
};

/// What was acknowledged to programs and to the other device.
class Model {
 public:
  void appended(const std::string& line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
  }
  void saved(const std::string& name, const std::string& content) {
    const std::lock_guard lock(mutex_);
    saved_[name] = content;
  }
  void fail(const std::string& what) {
    const std::lock_guard lock(mutex_);
    failures_.push_back(what);
  }
  std::vector<std::string> lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  std::map<std::string, std::string> saved() {
    const std::lock_guard lock(mutex_);
    return saved_;
  }
  std::vector<std::string> failures() {
    const std::lock_guard lock(mutex_);
    return failures_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::map<std::string, std::string> saved_;
  std::vector<std::string> failures_;
};

constexpr std::size_t swappedBytes = 400'000;

class MountModelTest : public MountTest {
 protected:
  struct Counts {
    int rounds = 0;
    int kills = 0;
    int remounts = 0;
    std::size_t lines = 0;
    std::size_t saves = 0;
    std::size_t reads = 0;
    std::size_t copies = 0;  // that the service made of versions that met
    std::size_t lost = 0;
    std::size_t mixed = 0;
  };

  /// A line that shows when a part of it is missing or another's.
  static std::string line(const std::string& who, int number) {
    std::string text = who + " " + std::to_string(number) + " ";
    text.append(static_cast<std::size_t>(number * 7 % 90), static_cast<char>('a' + number % 26));
    return text + " " + std::to_string(std::hash<std::string>{}(text));
  }
  static bool isWhole(const std::string& text) {
    const std::size_t space = text.rfind(' ');
    return space != std::string::npos &&
           text.substr(space + 1) == std::to_string(std::hash<std::string>{}(text.substr(0, space)));
  }

  void appendUntil(const std::atomic<bool>& isOver, const fs::path& path, const std::string& who,
                   Model& model) {
    Random random(seed_ + static_cast<unsigned>(std::hash<std::string>{}(who)));
    for (int number = 0; !isOver; ++number) {
      const std::string text = line(who, number);
      if (errnoOf([&] {
            File file(path, O_WRONLY | O_APPEND | O_CREAT);
            struct stat status {};
            must(::fstat(file.number, &status));
            file.put(text + "\n");
            file.close();
          }) == 0)
        model.appended(text);
      ::poll(nullptr, 0, static_cast<int>(random() % 8));
    }
  }

  /// Saves a document of its own again and again, in place or by rename.
  void saveUntil(const std::atomic<bool>& isOver, const fs::path& folder, const std::string& name,
                 Model& model) {
    Random random(seed_);
    for (int number = 0; !isOver; ++number) {
      const std::string content = line(name, number) + std::string(random() % 60'000, 'x');
      const bool byRename = number % 2 == 1;
      const fs::path target = folder / name;
      const fs::path written = byRename ? folder / (name + ".new") : target;
      const int reason = errnoOf([&] {
        store(written, content);
        if (byRename) moveFile(written, target);
      });
      model.saved(name, reason == 0 ? content : "");  // empty: it may be this one or the one before
      ::poll(nullptr, 0, static_cast<int>(random() % 20));
    }
  }

  /// A file of one letter that the other device replaces and that is saved here, too, is never seen half.
  void readUntil(const std::atomic<bool>& isOver, const fs::path& path, Model& model, Counts& counts) {
    while (!isOver) {
      std::string bytes;
      const int reason = errnoOf([&] {
        const File file(path, O_RDONLY);
        std::array<char, 20'000> step{};
        while (const auto count = must(::read(file.number, step.data(), step.size()))) {
          bytes.append(step.data(), static_cast<std::size_t>(count));
          ::posix_fadvise(file.number, 0, 0, POSIX_FADV_DONTNEED);
        }
      });
      if (reason != 0) {
        ::poll(nullptr, 0, 20);  // the mount is away
        continue;
      }
      ++counts.reads;
      if (bytes.size() != swappedBytes || bytes.find_first_not_of(bytes.front()) != std::string::npos)
        model.fail("a reader saw a mixed file of " + std::to_string(bytes.size()) +
                   " bytes: " + bytes.substr(0, 1) + " and " +
                   std::to_string(std::count(bytes.begin(), bytes.end(), bytes.front())));
    }
  }

  void swapUntil(const std::atomic<bool>& isOver, const fs::path& path) {
    for (int number = 0; !isOver; ++number) {
      errnoOf([&] {
        store(path.string() + ".new", std::string(swappedBytes, static_cast<char>('a' + number % 26)));
        moveFile(path.string() + ".new", path);
      });
      ::poll(nullptr, 0, 150);
    }
  }

  void workElsewhere(const std::atomic<bool>& isOver, const std::string& log, const std::string& swapped,
                     Model& model) {
    SecondDevice device(standIn.url());
    for (int number = 0; !isOver; ++number) {
      const std::string text = line("elsewhere", number);
      const auto version = device.read(log);
      if (version && device.write(log, version->bytes + text + "\n", version->rev)) model.appended(text);
      if (number % 3 == 0) {
        const auto before = device.read(swapped);
        if (before)
          device.write(swapped, std::string(swappedBytes, static_cast<char>('A' + number % 26)), before->rev);
      }
      ::poll(nullptr, 0, 120);
    }
  }

  void compare(const std::string& folder, Model& model, Counts& counts) {
    std::map<std::string, int> found;
    const auto tree = standIn.tree();
    for (const auto& [path, size] : tree) {
      if (!path.starts_with(folder + "/log")) continue;
      counts.copies += path != folder + "/log";
      std::map<std::string, int> inThisFile;
      std::istringstream text(standIn.content(path));
      for (std::string each; std::getline(text, each);) {
        ++found[each];
        if (isWhole(each) && ++inThisFile[each] == 1) continue;
        ++counts.mixed;
        ADD_FAILURE() << path << " holds a mixed line: " << each.substr(0, 200);
      }
    }
    for (const std::string& each : model.lines()) {
      if (found.contains(each)) continue;
      ++counts.lost;
      ADD_FAILURE() << folder << " lost the line: " << each;
    }
    counts.lines += model.lines().size();
    for (const auto& [name, content] : model.saved()) {
      ++counts.saves;
      const auto there = tree.count(folder + "/" + name) ? standIn.content(folder + "/" + name) : "";
      if (!content.empty() && there != content) {
        ++counts.lost;
        ADD_FAILURE() << folder << "/" << name << " is not what was saved last";
      }
      if (there.empty()) continue;
      EXPECT_EQ(contentOf(root / folder.substr(1) / name), there);
    }
    for (const std::string& failure : model.failures()) {
      ++counts.mixed;
      ADD_FAILURE() << failure;
    }
    EXPECT_TRUE(soon([&] {
      return contentOf(root / folder.substr(1) / "log") == standIn.content(folder + "/log");
    })) << "the mount shows another log than the service has";
  }

  const unsigned seed_ = static_cast<unsigned>(environmentNumber("KZV_MODEL_SEED", 1));
};

}  // namespace

TEST_F(MountModelTest, LosesAndMixesNothing) {
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::seconds(environmentNumber("KZV_MODEL_SECONDS", 4));
  Random random(seed_);
  Counts counts;
  mount();
  while (counts.rounds == 0 || std::chrono::steady_clock::now() < end) {
    const std::string folder = "/round " + std::to_string(++counts.rounds);
    const fs::path here = root / folder.substr(1);
    standIn.write(folder + "/log", line("begin", 0) + "\n");
    standIn.write(folder + "/swapped", std::string(swappedBytes, 'A'));
    EXPECT_TRUE(soon([&] { return fs::exists(here / "log"); }));
    Model model;
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (const char* who : {"one", "two", "three", "four"})
      threads.emplace_back([&, who] { appendUntil(isOver, here / "log", who, model); });
    for (const char* name : {"document", "letter"})
      threads.emplace_back([&, name] { saveUntil(isOver, here, name, model); });
    threads.emplace_back([&] { readUntil(isOver, here / "swapped", model, counts); });
    threads.emplace_back([&] { swapUntil(isOver, here / "swapped"); });
    threads.emplace_back([&] { workElsewhere(isOver, folder + "/log", folder + "/swapped", model); });
    ::poll(nullptr, 0, static_cast<int>(700 + random() % 1200));
    const auto ending = counts.rounds == 1 ? 0 : random() % 3;
    if (ending == 0) {
      this->end(SIGKILL);  // amid everything
      ++counts.kills;
      mount();
      ::poll(nullptr, 0, 500);
    }
    isOver = true;
    for (auto& thread : threads) thread.join();
    if (ending == 1) {
      EXPECT_EQ(unmount(), 0);
      ++counts.remounts;
      mount();
    }
    EXPECT_TRUE(soon([&] { return waiting() == 0; })) << waiting() << " files still wait to be sent";
    compare(folder, model, counts);
  }
  std::cout << counts.rounds << " rounds, " << counts.kills << " kills, " << counts.remounts << " remounts, "
            << counts.lines << " lines and " << counts.saves << " documents acknowledged, " << counts.reads
            << " whole reads, " << counts.copies << " copies of versions that met: " << counts.lost
            << " lost, " << counts.mixed << " mixed\n";
}
