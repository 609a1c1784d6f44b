#pragma once
#include <functional>

#include "foundation/NSThread.h"

/// Running callbacks on a given long-lived thread, and connecting a service object with its delegate. No
/// state.
class KZVDropboxFSSupport {
 public:
  using Block = std::function<void()>;

  /// Sets the delegate of `service`, unretained.
  template <class Delegate, class Service>
  static void setDelegate(Delegate* delegate, Service& service) {
    service.setDelegate(delegate);
  }

  /// Queues `block` on the thread's run loop and returns at once. Any thread.
  static void performBlockInBackground(Block block, NSThread& thread);
  /// The same, but returns only after the block has run; on that thread itself it runs at once. Any thread;
  /// blocks.
  static void performBlockInBackgroundAndWait(Block block, NSThread& thread);
  /// Runs `block`; an exception is logged and swallowed, so that the thread and its run loop continue.
  static void _runBlock(const Block& block) noexcept;

  /// Sends the message `selector` with its one argument to `target`.
  template <class Target, class Parameter, class Argument>
  static void perform(void (Target::*selector)(Parameter), Target& target, Argument&& argument) {
    (target.*selector)(std::forward<Argument>(argument));
  }
};
