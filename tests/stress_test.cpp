#include <atomic>
#include <thread>

#include "foundation/NSRunLoop.h"
#include "foundation/NSString.h"
#include "plugin/KZVDropboxFSClass.h"
#include "plugin/KZVDropboxFSGlobals.h"
#include "tests/PluginFixture.h"

namespace {

/// A network that comes and goes when the test says so.
class FlippingNetwork final : public Reachability::Source {
 public:
  NetworkStatus status() const override { return status_; }
  bool start(std::function<void()> changed) override {
    changed_ = std::move(changed);
    return true;
  }
  void flip() {
    status_ = status_ == NetworkStatus::notReachable ? NetworkStatus::reachableViaWiFi
                                                     : NetworkStatus::notReachable;
    changed_();
  }

 private:
  std::atomic<NetworkStatus> status_{NetworkStatus::reachableViaWiFi};
  std::function<void()> changed_;
};

class StressTest : public PluginTest {
 protected:
  StressTest() : PluginTest("0.05") {}
};

}  // namespace

TEST_F(StressTest, ListingAndReadingWhileEverythingChanges) {
  const auto network = std::make_shared<FlippingNetwork>();
  const auto monitor = std::make_shared<Reachability>(network);
  monitor->startNotifier();
  KZVDropboxReachability().set(monitor);
  standIn.makeTree("/tree", 10, 20);
  const auto bob = open("bob-token");

  std::atomic<bool> isOver = false;
  std::atomic<int> calls = 0;
  std::vector<std::thread> hosts;
  for (int number = 0; number < 16; ++number) {
    hosts.emplace_back([&, number] {
      const auto& plugin = number % 4 == 0 ? bob : ada;
      while (!isOver) {
        const auto items =
            plugin->contentAtPath(number % 2 == 0 ? "/tree" : "/", number % 3 == 0, true, nullptr);
        for (const auto& item : items.value_or(FSItems())) plugin->attributesAtPath(item->path(), nullptr);
        plugin->label();
        plugin->isFSAvailable();
        KZVDropboxFSClass::shared().availableRootItems();
        ++calls;
      }
    });
  }
  for (int round = 0; round < 20; ++round) {
    standIn.write("/tree/changed.txt", std::string(static_cast<std::size_t>(round), 'x'));
    network->flip();
    if (round == 5) bob->eject();
    if (round == 10) open("cid-token");
    if (round == 15) standIn.settings({{"reset_cursors", true}});
  }
  while (calls < 64) std::this_thread::yield();
  isOver = true;
  bounded([&] {
    for (std::thread& host : hosts) host.join();
    return true;
  });
  const auto expected = standIn.tree();
  auto shown = listedTree(*ada);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (shown != expected && std::chrono::steady_clock::now() < deadline) shown = listedTree(*ada);
  EXPECT_EQ(shown, expected);
}
