#pragma once
#include <chrono>
#include <condition_variable>
#include <mutex>

/// A mutex, its guard and its condition variable with Clang's thread-safety annotations: clang
/// -Wthread-safety then checks at compile time that guarded values are used under their lock. Other compilers
/// ignore the annotations. See https://clang.llvm.org/docs/ThreadSafetyAnalysis.html.
///
///   mutable Mutex mutex_;
///   int count_ KZV_GUARDED_BY(mutex_) = 0;
///   void addLocked() KZV_REQUIRES(mutex_);                              // the caller holds the lock
///   ready_.wait(lock, [this]() KZV_REQUIRES(mutex_) { return count_ > 0; });  // so does a predicate

#if defined(__clang__)
#define KZV_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define KZV_THREAD_ANNOTATION(annotation)
#endif

#define KZV_CAPABILITY(name) KZV_THREAD_ANNOTATION(capability(name))
#define KZV_SCOPED_CAPABILITY KZV_THREAD_ANNOTATION(scoped_lockable)
#define KZV_GUARDED_BY(mutex) KZV_THREAD_ANNOTATION(guarded_by(mutex))
#define KZV_REQUIRES(...) KZV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KZV_EXCLUDES(...) KZV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define KZV_ACQUIRE(...) KZV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KZV_RELEASE(...) KZV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KZV_ACQUIRED_BEFORE(...) KZV_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define KZV_NO_THREAD_SAFETY_ANALYSIS KZV_THREAD_ANNOTATION(no_thread_safety_analysis)

class KZV_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;
  ~Mutex() = default;

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

/// Holds a mutex until the end of its scope; unlock() and lock() release it temporarily.
class KZV_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) KZV_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  ~MutexLock() KZV_RELEASE() = default;

  void lock() KZV_ACQUIRE() { lock_.lock(); }
  void unlock() KZV_RELEASE() { lock_.unlock(); }

 private:
  friend class Condition;
  std::unique_lock<std::mutex> lock_;
};

/// A condition variable for use with MutexLock. Predicates run with the lock held.
class Condition {
 public:
  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

  template <class Predicate>
  void wait(MutexLock& lock, Predicate isTrue) KZV_NO_THREAD_SAFETY_ANALYSIS {
    condition_.wait(lock.lock_, isTrue);
  }
  /// These two return the predicate's last result.
  template <class Duration, class Predicate>
  bool waitFor(MutexLock& lock, Duration time, Predicate isTrue) KZV_NO_THREAD_SAFETY_ANALYSIS {
    return condition_.wait_for(lock.lock_, time, isTrue);
  }
  template <class Predicate>
  bool waitUntil(MutexLock& lock, std::chrono::steady_clock::time_point end,
                 Predicate isTrue) KZV_NO_THREAD_SAFETY_ANALYSIS {
    return condition_.wait_until(lock.lock_, end, isTrue);
  }
  /// Returns at `end`, at a notification, or spuriously.
  void waitUntil(MutexLock& lock, std::chrono::steady_clock::time_point end) {
    condition_.wait_until(lock.lock_, end);
  }

 private:
  std::condition_variable condition_;
};
