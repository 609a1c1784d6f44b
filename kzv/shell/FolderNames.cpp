#include "kzv/shell/FolderNames.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "foundation/Descriptor.h"
#include "foundation/DispatchQueue.h"
#include "kzv/shell/PromptSignals.h"

namespace kzv::cli {

namespace {

constexpr int limitMilliseconds = 2000;

/// Passes the names from the listing thread to the waiting one, which may have given up.
class Answer {
 public:
  Answer() : ready_(::eventfd(0, EFD_CLOEXEC)) {}

  void put(std::vector<CompletionName> names) {
    const std::lock_guard lock(mutex_);
    names_ = std::move(names);
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = ::write(ready_.number(), &one, sizeof one);
  }
  std::vector<CompletionName> waitFor() {
    std::array<pollfd, 2> waits{pollfd{ready_.number(), POLLIN, 0}, pollfd{PromptSignals::file(), POLLIN, 0}};
    ::poll(waits.data(), waits.size(), limitMilliseconds);
    const std::lock_guard lock(mutex_);
    return std::exchange(names_, {});
  }

 private:
  const Descriptor ready_;
  std::mutex mutex_;
  std::vector<CompletionName> names_;  // guarded by mutex_
};

}  // namespace

std::vector<CompletionName> namesInRemoteFolder(const std::shared_ptr<FSPlugin>& volume,
                                                const std::string& path) {
  const auto answer = std::make_shared<Answer>();
  DispatchQueue::global().async([answer, volume, path] {
    std::vector<CompletionName> names;
    NSErrorRef error;
    if (const auto items = volume->contentAtPath(path, false, true, &error)) {
      names.reserve(items->size());
      for (const auto& item : *items) names.push_back({item->name(), item->isDirectory()});
    }
    answer->put(std::move(names));
  });
  return answer->waitFor();
}

std::vector<CompletionName> namesInLocalFolder(const std::string& path) {
  std::vector<CompletionName> names;
  std::error_code code;
  std::filesystem::directory_iterator entries(path.empty() ? "." : path, code);
  for (; !code && entries != std::filesystem::directory_iterator(); entries.increment(code)) {
    std::error_code unknown;
    names.push_back({entries->path().filename().string(), entries->is_directory(unknown)});
  }
  return names;
}

}  // namespace kzv::cli
