#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "service/Accounts.h"
#include "service/Clock.h"
#include "service/CommitGate.h"
#include "service/Faults.h"
#include "service/Paths.h"
#include "service/RequestLog.h"
#include "service/ServiceOptions.h"
#include "service/Store.h"
#include "service/Tokens.h"
#include "service/UploadSessions.h"

namespace kzv::service {

/// Switches that tests turn while the program runs. Thread-safe.
struct Settings {
  /// Upper limit of entries a page; 0: none but the request's.
  std::atomic<std::int64_t> pageSize{0};
  /// Cursors made under another epoch are answered with `reset`.
  std::atomic<std::int64_t> cursorEpoch{1};
  /// Show lower-cased parents in path_display, as the service is free to do.
  std::atomic<bool> displayCaseQuirk{false};
  std::atomic<bool> refuseBeyondBmp{false};
  /// Answer every second one of two commits at the same time with too_many_write_operations.
  std::atomic<bool> writeContention{false};
  /// The same for every commit that begins while another one is in progress.
  std::atomic<bool> singleWriter{false};
  /// The status of these answers: 429 or 409.
  std::atomic<std::int64_t> contentionStatus{429};
  /// Makes commits last, so that they meet.
  std::atomic<std::int64_t> commitDelayMs{0};
  /// Items a move or copy may touch; 0: any number.
  std::atomic<std::int64_t> relocationLimit{10000};
  /// Upper limit of the random time a longpoll waits beyond its timeout.
  std::atomic<std::int64_t> longpollJitterSeconds{90};

  ApproveMode approve() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return approve_;
  }
  std::string approveAs() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return approveAs_;
  }
  void setApprove(ApproveMode mode) {
    const std::lock_guard<std::mutex> lock(mutex_);
    approve_ = mode;
  }
  /// E-mail address of the account that an automatic approval takes; empty: the first.
  void setApproveAs(std::string email) {
    const std::lock_guard<std::mutex> lock(mutex_);
    approveAs_ = std::move(email);
  }

 private:
  mutable std::mutex mutex_;
  ApproveMode approve_ = ApproveMode::page;  // guarded by mutex_
  std::string approveAs_;                    // guarded by mutex_
};

/// Everything the routes work on. Each part is thread-safe by itself.
struct ServiceState {
  explicit ServiceState(const ServiceOptions& given)
      : options(given),
        store({given.dataFolder}, clock),
        accounts(store),
        tokens(store, clock),
        uploads(store) {
    settings.setApprove(given.approve);
    settings.cursorEpoch = store.loadEpoch();
  }

  PathOptions pathOptions() const { return {settings.refuseBeyondBmp}; }

  const ServiceOptions options;
  Clock clock;
  Store store;
  Accounts accounts;
  Tokens tokens;
  UploadSessions uploads;
  CommitGate commitGate;
  Faults faults;
  RequestLog requests;
  Settings settings;
};

}  // namespace kzv::service
