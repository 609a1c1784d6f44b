#include <future>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "foundation/NSRunLoop.h"
#include "foundation/NSString.h"
#include "support/AssociatedObjects.h"
#include "support/KZVDropboxFSSupport.h"

using namespace std::chrono_literals;

namespace {

/// A thread whose run loop serves blocks until the fixture goes.
class ServingThread {
 public:
  ServingThread() {
    std::promise<std::shared_ptr<NSThread>> published;
    auto thread = published.get_future();
    worker_ = std::thread([&published] {
      const auto self = NSThread::currentThread();
      published.set_value(self);
      self->runLoop()->waitUntilDate(NSRunLoop::Clock::now() + 50s);
    });
    thread_ = thread.get();
  }
  ~ServingThread() {
    thread_->runLoop()->stop();
    worker_.join();
  }
  NSThread& thread() { return *thread_; }

 private:
  std::shared_ptr<NSThread> thread_;
  std::thread worker_;
};

}  // namespace

TEST(AssociatedObjects, SetRetainsAssignDoesNotAndNothingRemoves) {
  const auto object = str("carrier");
  const auto retaining = str("key");
  const auto assigning = str("key");
  auto value = str("value");
  const std::weak_ptr<NSObject> watch = value;
  assignObj(*object, value, *assigning);
  EXPECT_EQ(value.use_count(), 1);
  EXPECT_EQ(objForKey(*object, *retaining), nullptr) << "the key is the object, not its text";
  setObj(*object, value, *retaining);
  value.reset();
  EXPECT_FALSE(watch.expired());
  EXPECT_EQ(objForKey(*object, *assigning), watch.lock());
  setObj(*object, nullptr, *assigning);
  setObj(*object, nullptr, *retaining);
  EXPECT_EQ(objForKey(*object, *retaining), nullptr);
  EXPECT_TRUE(watch.expired());
}

TEST(PerformBlock, RunsOnTheThreadAndSurvivesAnException) {
  ServingThread service;
  std::promise<std::thread::id> ranOn;
  KZVDropboxFSSupport::performBlockInBackground([] { throw std::runtime_error("a callback failed"); },
                                                service.thread());
  KZVDropboxFSSupport::performBlockInBackground([&] { ranOn.set_value(std::this_thread::get_id()); },
                                                service.thread());
  auto where = ranOn.get_future();
  ASSERT_EQ(where.wait_for(10s), std::future_status::ready);
  EXPECT_NE(where.get(), std::this_thread::get_id());
}

TEST(PerformBlock, WaitingVariantHasRunOnReturnAlsoOnItsOwnThread) {
  ServingThread service;
  bool inner = false;
  bool outer = false;
  KZVDropboxFSSupport::performBlockInBackgroundAndWait(
      [&] {
        KZVDropboxFSSupport::performBlockInBackgroundAndWait([&] { inner = true; }, service.thread());
        outer = inner;
      },
      service.thread());
  EXPECT_TRUE(outer);
}
