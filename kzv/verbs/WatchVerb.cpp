#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostSession.h"
#include "kzv/JsonLine.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

/// A queue of changed folders from the main thread, where volumes report them, to the verb's thread.
class ChangedPaths {
 public:
  void add(const std::string& path) {
    {
      const std::lock_guard lock(mutex_);
      paths_.push_back(path);
    }
    arrived_.notify_one();
  }
  /// Removes and returns all paths; waits up to 100 ms for one.
  std::deque<std::string> take() {
    constexpr auto limit = std::chrono::milliseconds(100);  // how soon a stop is noticed
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, limit, [&] { return !paths_.empty(); });
    return std::exchange(paths_, {});
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::string> paths_;  // guarded by mutex_
};

class WatchVerb final : public Verb {
 public:
  Words words() const override {
    return {"watch", "Print a line whenever a watched folder changes, until stopped",
            "  kzv watch /Documents /Photos"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.values("PATH", typed_, "Folders of the account; changes in their subfolders are not reported")
        .required();
  }

  void run(VerbContext& context) override {
    const auto volume = context.openVolume();
    if (!volume) return;
    const auto changes = std::make_shared<ChangedPaths>();  // callbacks may outlive the verb
    volume->pollForChanges();                               // so that only later changes are reported
    FSItems watched;
    for (const std::string& typed : typed_) {
      if (auto item = watch(context, volume, typed, changes)) watched.push_back(std::move(item));
    }
    while (!watched.empty() && !context.shouldStop(watched.front()->path())) {
      for (const std::string& path : changes->take()) report(context, path);
      if (context.session.isVolumeLinked()) continue;
      context.fail("", context.session.missingError());
      break;
    }
    for (const auto& item : watched) volume->stopWatchFolder(item);
  }

 private:
  static std::shared_ptr<FSItem> watch(VerbContext& context, const std::shared_ptr<FSPlugin>& volume,
                                       const std::string& typed,
                                       const std::shared_ptr<ChangedPaths>& changes) {
    const std::string path = context.pathFrom(typed);
    if (path.empty()) return nullptr;
    NSErrorRef error;
    if (!volume->contentAtPath(path, false, true,
                               &error)) {  // a folder's changes are reported once it has been listed
      context.fail(path, error);
      return nullptr;
    }
    auto item = std::make_shared<FSItem>(path, volume);
    item->setIsDirectory(true);
    item->setChangeCallback(
        [changes](const std::shared_ptr<FSItem>& changed) { changes->add(changed->path()); });
    volume->startWatchFolder(item);
    return item;
  }

  static void report(VerbContext& context, const std::string& path) {
    context.console.line(context.options.json ? jsonLine({{"path", path}}) : harmless(path));
    context.console.flush();
  }

  std::vector<std::string> typed_;
};

}  // namespace

std::unique_ptr<Verb> makeWatchVerb() { return std::make_unique<WatchVerb>(); }

}  // namespace kzv::cli
