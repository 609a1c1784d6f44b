#include "foundation/NSThread.h"

#include <exception>
#include <future>
#include <string>

#include <pthread.h>

#include "foundation/NSLog.h"
#include "foundation/NSRunLoop.h"

namespace {
// Created while the library is loaded, on the process's first thread because programs link the library.
const std::shared_ptr<NSThread>& mainThreadSlot() {
  static const auto& slot = *new std::shared_ptr<NSThread>(std::make_shared<NSThread>());
  return slot;
}
[[maybe_unused]] const bool mainThreadNoted = mainThreadSlot() != nullptr;
}  // namespace

NSThread::NSThread() : id_(std::this_thread::get_id()), runLoop_(std::make_shared<NSRunLoop>()) {}

std::shared_ptr<NSThread> NSThread::mainThread() { return mainThreadSlot(); }

bool NSThread::isMainThread() { return mainThreadSlot()->isCurrentThread(); }

std::shared_ptr<NSThread> NSThread::currentThread() {
  if (isMainThread()) return mainThread();
  thread_local const std::shared_ptr<NSThread> current = std::make_shared<NSThread>();
  return current;
}

void NSThread::sleepForTimeInterval(std::chrono::duration<double> interval) {
  std::this_thread::sleep_for(interval);
}

void NSThread::perform(std::function<void()> block, bool waitUntilDone) {
  if (!waitUntilDone) {
    runLoop_->perform(std::move(block));
    return;
  }
  if (isCurrentThread()) {
    runGuarded(block);
    return;
  }
  // Shared, because the loop may still be inside set_value when this thread returns.
  const auto ran = std::make_shared<std::promise<void>>();
  runLoop_->perform([&block, ran] {
    runGuarded(block);
    ran->set_value();
  });
  ran->get_future().wait();
}

void runGuarded(const std::function<void()>& block) noexcept {
  try {
    block();
  } catch (const std::exception& exception) {
    NSLog(NSLogLevel::error, "runGuarded", exception.what());
  } catch (...) {
    NSLog(NSLogLevel::error, "runGuarded", "exception of unknown type");
  }
}

void setCurrentThreadName(std::string_view name) {
  constexpr std::size_t longest = 15;  // the system refuses longer names altogether
  pthread_setname_np(pthread_self(), std::string(name.substr(0, longest)).c_str());
}
