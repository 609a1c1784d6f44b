#include <CLI/CLI.hpp>
#include <cerrno>
#include <memory>
#include <optional>
#include <thread>

#include <fmt/format.h>

#include "foundation/StandardFolders.h"
#include "host/Console.h"
#include "host/Formatting.h"
#include "host/HostError.h"
#include "host/HostSession.h"
#include "host/StopSignal.h"
#include "host/mount/FuseServer.h"
#include "host/mount/MountedVolume.h"
#include "host/mount/Mountpoint.h"
#include "host/mount/UploadJournal.h"
#include "host/verbs/Verbs.h"

using namespace std::chrono_literals;

namespace {

/// After an unmount, what waits is tried once more; whatever fails again waits for the next mount.
constexpr auto lastTry = 5s;
/// After a request to stop, unmounting and leaving takes this long at most.
constexpr auto stopGrace = 5s;

class MountVerb final : public Verb {
 public:
  Words words() const override {
    return {"mount", "Show the account as a folder that every program can use, until it is unmounted",
            "  mkdir -p ~/Cloud && kzv mount ~/Cloud\n  kzv umount ~/Cloud"};
  }
  void declare(CLI::App& command) override {
    command.add_option("DIR", folder_, "An existing folder")->required();
    command.add_flag("--foreground", isForeground_, "Stay here, until Ctrl-C or an unmount");
    command.add_option("--ready-fd", readyDescriptor_)->group("");
    command.add_option("--log", logFile_)->group("");
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    const auto mountpoint = prepareMountpoint(folder_, &error);
    if (!mountpoint) return context.fail(folder_, error);
    const auto accountId = context.session.chooseAccount(context.options.account, &error);
    if (!accountId) return context.fail("", error);
    if (isForeground_ || readyDescriptor_ >= 0) {
      serve(context, *accountId, *mountpoint);
    } else {
      startAnother(context, *accountId, *mountpoint);
    }
  }

 private:
  void startAnother(VerbContext& context, const std::string& accountId, const std::string& mountpoint) {
    NSErrorRef error;
    std::vector<std::string> arguments{"--account", accountId};
    if (context.options.verbose) arguments.emplace_back("--verbose");
    arguments.insert(arguments.end(), {"mount", mountpoint});
    const auto start = startInBackground(arguments, stateFolder() + "/mount/log", &error);
    if (error) return context.fail(mountpoint, error);
    if (!start.isReady) return context.failAsSaid(start.said, start.exitStatus);
    context.console.note(fmt::format("mounted at {}; unmount it with: kzv umount {}", harmless(mountpoint),
                                     harmless(mountpoint)));
  }

  void serve(VerbContext& context, const std::string& accountId, const std::string& mountpoint) {
    NSErrorRef error;
    const auto journal = openJournal(accountId, mountpoint, &error);
    if (!journal) return context.fail(mountpoint, error);
    const auto volume = context.openVolume();
    if (!volume) return;
    FuseServer server;
    if (!server.mount(mountpoint, &error)) return context.fail(mountpoint, error);
    {
      MountedVolume mounted(volume, journal, server, linkMaker(context, accountId));
      mounted.start();
      StopSignal::whenRequested(
          [&] {
            mounted.stop();
            server.stop();
          },
          stopGrace);
      if (!logFile_.empty()) writeToLog(logFile_);
      if (isForeground_) context.console.note(fmt::format("mounted at {}", harmless(mountpoint)));
      reportReady(readyDescriptor_);
      server.serve(mounted);
      StopSignal::whenRequested(nullptr, 0s);
      if (!StopSignal::isRequested()) mounted.flushJournal(lastTry);
    }
    if (const auto count = UploadJournal::pendingCount(accountId))
      context.console.note(fmt::format("{} could not be sent yet; the next mount sends {}",
                                       count == 1 ? "a file" : fmt::format("{} files", count),
                                       count == 1 ? "it" : "them"));
    context.shouldStop(mountpoint);
  }

  /// Waits for a process that has just been unmounted to finish its work.
  static std::shared_ptr<UploadJournal> openJournal(const std::string& accountId,
                                                    const std::string& mountpoint, NSErrorRef* error) {
    for (const auto end = std::chrono::steady_clock::now() + lastTry + 1s;;
         std::this_thread::sleep_for(50ms)) {
      if (auto journal = UploadJournal::open(accountId, mountpoint, error)) return journal;
      const bool isEnding =
          *error && (*error)->code() == EBUSY && !isMountpoint(UploadJournal::mountpointOf(accountId));
      if (!isEnding || StopSignal::isRequested() || std::chrono::steady_clock::now() > end) return nullptr;
    }
  }

  /// Public links are made in the desktop client's account, whichever volume is shown.
  static MountedVolume::LinkMaker linkMaker(VerbContext& context, const std::string& accountId) {
    FSPluginAccounts* accounts = context.session.accountsInterface(nullptr);
    if (!accounts) return nullptr;
    return [accounts, accountId](const std::string& path, NSErrorRef* error) {
      const auto desktop = accounts->desktopAccountId();
      return desktop == accountId ? accounts->publicLink(path, error) : std::optional<std::string>();
    };
  }

  std::string folder_;
  std::string logFile_;
  bool isForeground_ = false;
  int readyDescriptor_ = -1;
};

class UmountVerb final : public Verb {
 public:
  Words words() const override {
    return {"umount", "Unmount what `kzv mount` shows", "  kzv umount ~/Cloud"};
  }
  void declare(CLI::App& command) override {
    command.add_option("DIR", folder_, "Where it is mounted")->required();
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    if (!unmountAt(folder_, &error)) context.fail(folder_, error);
  }

 private:
  std::string folder_;
};

}  // namespace

std::unique_ptr<Verb> makeMountVerb() { return std::make_unique<MountVerb>(); }
std::unique_ptr<Verb> makeUmountVerb() { return std::make_unique<UmountVerb>(); }
