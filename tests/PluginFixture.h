#pragma once
#include <future>
#include <map>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "plugin/KZVDropboxFS.h"
#include "testing/StandIn.h"
#include "testing/TemporaryFolder.h"

/// The plug-in in this process, started against a stand-in of its own, with Ada's account linked and
/// attached. CTest runs each test in a process of its own, so each has a fresh plug-in. Waits are bounded:
/// our calls have no limit of their own.
class PluginTest : public testing::Test {
 protected:
  static constexpr std::chrono::seconds patience{40};

  /// @param pollSeconds  how often the change feed is asked; the default is so long that only an explicit
  /// poll counts.
  /// @param longPoll  "1": a request waits at the service while something is watched.
  explicit PluginTest(const char* pollSeconds = "3600", const char* longPoll = "0");
  ~PluginTest() override;

  /// Links the account that the stand-in knows by `token` and opens it; fails the test when that does not
  /// work.
  std::shared_ptr<KZVDropboxFS> open(const std::string& token);
  /// Returns once `plugin` has a cursor of the change feed, so that it keeps what it fetches from then on.
  void settle(KZVDropboxFS& plugin);
  /// A recursive listing in StandIn::tree's form.
  static std::map<std::string, std::int64_t> treeOf(const FSItems& items);
  /// The tree as the plug-in lists it; fails the test when the listing fails.
  std::map<std::string, std::int64_t> listedTree(KZVDropboxFS& plugin, const std::string& path = "/");

  /// Runs `call` on a thread of its own; a call that does not come back ends the test program, not the
  /// machine's night.
  template <class Call>
  auto bounded(Call call) -> decltype(call()) {
    auto result = std::async(std::launch::async, std::move(call));
    if (result.wait_for(patience) != std::future_status::ready) {
      ADD_FAILURE() << "a call did not come back";
      std::_Exit(1);
    }
    return result.get();
  }

  TemporaryFolder home;
  StandIn standIn;
  std::shared_ptr<KZVDropboxFS> ada;
};
