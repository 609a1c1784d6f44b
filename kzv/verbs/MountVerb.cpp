#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "foundation/StandardFolders.h"
#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostError.h"
#include "kzv/HostSession.h"
#include "kzv/StopSignal.h"
#include "kzv/verbs/MountStatus.h"
#include "kzv/verbs/Verbs.h"
#include "mount/MountedVolume.h"
#include "mount/journal/UploadJournal.h"
#include "mount/kernel/FuseServer.h"
#include "mount/kernel/Mountpoint.h"

namespace kzv::cli {

using namespace std::chrono_literals;
using namespace kzv::mount;

namespace {

/// After an unmount, pending uploads are tried once more; what fails again is left to the next mount.
constexpr auto flushTimeout = 20s;
/// The time for unmounting and exiting after a stop request.
constexpr auto stopGrace = 5s;

class MountVerb final : public Verb {
 public:
  Words words() const override {
    return {"mount", "Show the account as a folder that every program can use, until it is unmounted",
            "  mkdir -p ~/Cloud && kzv mount ~/Cloud\n  kzv umount ~/Cloud"};
  }
  void declare(VerbArguments& arguments) override {
    auto folder = arguments.value("DIR", folder_, "An existing folder");
    auto status = arguments.flag("--status", isStatus_,
                                 "List all mounts, with their pending uploads, since when and why");
    status.excludes(folder);
    arguments.flag("--foreground", isForeground_, "Stay in the foreground until Ctrl-C or an unmount");
    arguments.value("--ready-fd", readyDescriptor_).hidden();
    arguments.value("--log", logFile_).hidden();
  }

  void run(VerbContext& context) override {
    if (isStatus_) return showMountStatus(context);
    if (folder_.empty())
      return context.fail("", hostError(HostErrorCode::badInput, "DIR is missing: the folder to mount at"));
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
    if (!start.isReady) return context.failWithOutput(start.output, start.exitStatus);
    for (const std::string& line : linesOf(start.output)) context.console.note(line);
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
      MountedVolume mounted(volume, journal, server, linkSource(context, accountId),
                            linkTest(context, accountId));
      mounted.start();
      StopSignal::whenRequested(
          [&] {
            mounted.stop();
            server.stop();
          },
          stopGrace);
      noteDamaged(context, UploadJournal::stateOf(accountId));
      if (!logFile_.empty()) writeToLog(logFile_);
      if (isForeground_) context.console.note(fmt::format("mounted at {}", harmless(mountpoint)));
      reportReady(readyDescriptor_);
      server.serve(mounted);
      StopSignal::whenRequested(nullptr, 0s);
      if (!StopSignal::isRequested()) mounted.flushJournal(flushTimeout);
    }
    notePending(context, UploadJournal::stateOf(accountId));
    context.shouldStop(mountpoint);
  }

  /// Opens the journal, waiting for the process of a volume that was just unmounted.
  static std::shared_ptr<UploadJournal> openJournal(const std::string& accountId,
                                                    const std::string& mountpoint, NSErrorRef* error) {
    for (const auto end = std::chrono::steady_clock::now() + flushTimeout + 1s;;
         std::this_thread::sleep_for(50ms)) {
      if (auto journal = UploadJournal::open(accountId, mountpoint, error)) return journal;
      const bool isEnding =
          *error && (*error)->code() == EBUSY && !isMountpoint(UploadJournal::mountpointOf(accountId));
      if (!isEnding || StopSignal::isRequested() || std::chrono::steady_clock::now() > end) return nullptr;
    }
  }

  /// Public links are made in the desktop client's account only.
  static LinkSource linkSource(VerbContext& context, const std::string& accountId) {
    FSPluginAccounts* accounts = context.session.accountsInterface(nullptr);
    if (!accounts) return {};
    const auto isDesktops = [accounts, accountId] { return accounts->desktopAccountId() == accountId; };
    return {[accounts, isDesktops](const std::string& path, NSErrorRef* error) {
              return isDesktops() ? accounts->existingLink(path, error) : std::nullopt;
            },
            [accounts, isDesktops](const std::string& path, NSErrorRef* error) {
              const auto link = isDesktops() ? accounts->publicLink(path, error) : std::nullopt;
              return link ? std::optional(link->url) : std::nullopt;
            }};
  }

  static std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
  }

  static IsLinked linkTest(VerbContext& context, const std::string& accountId) {
    FSPluginAccounts* accounts = context.session.accountsInterface(nullptr);
    if (!accounts) return nullptr;
    return [accounts, accountId] {
      const auto ids = accounts->linkedAccountIds();
      return std::find(ids.begin(), ids.end(), accountId) != ids.end();
    };
  }

  std::string folder_;
  std::string logFile_;
  bool isStatus_ = false;
  bool isForeground_ = false;
  int readyDescriptor_ = -1;
};

class UmountVerb final : public Verb {
 public:
  Words words() const override {
    return {"umount", "Unmount a volume, and wait for its pending uploads", "  kzv umount ~/Cloud"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.value("DIR", folder_, "The folder it is mounted at").required();
  }

  void run(VerbContext& context) override {
    if (!context.isLocalPath(folder_)) return;
    NSErrorRef error;
    const auto mountpoint = unmountAt(folder_, &error);
    if (!mountpoint) return context.fail(folder_, error);
    for (const auto& state : UploadJournal::states())
      if (state.mountpoint == *mountpoint) awaitEnd(context, state);
  }

 private:
  /// Waits for the mount's process, which makes the pending uploads before it ends; reports those left.
  static void awaitEnd(VerbContext& context, const UploadJournal::State& state) {
    constexpr auto interval = 50ms;
    if (state.isMounted && !state.waiting.empty())
      context.console.note(fmt::format("uploading {} ...", fileCount(state.waiting.size()),
                                       state.waiting.size() == 1 ? "waits" : "wait"));
    const auto end = std::chrono::steady_clock::now() + flushTimeout + stopGrace;
    while (UploadJournal::isMounted(state.accountId) && std::chrono::steady_clock::now() < end &&
           !context.shouldStop(state.mountpoint))
      std::this_thread::sleep_for(interval);
    notePending(context, UploadJournal::stateOf(state.accountId));
  }

  std::string folder_;
};

}  // namespace

std::unique_ptr<Verb> makeMountVerb() { return std::make_unique<MountVerb>(); }
std::unique_ptr<Verb> makeUmountVerb() { return std::make_unique<UmountVerb>(); }

}  // namespace kzv::cli
