#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "standin/ServiceOptions.h"
#include "standin/faults/CommitGate.h"
#include "standin/faults/Faults.h"
#include "standin/faults/RequestLog.h"
#include "standin/store/Accounts.h"
#include "standin/store/Clock.h"
#include "standin/store/NormalPath.h"
#include "standin/store/Store.h"
#include "standin/store/Tokens.h"
#include "standin/store/UploadSessions.h"

namespace kzv::standin {

/// Settings that tests change while the program runs. Thread-safe.
struct Settings {
  /// Upper limit of entries per page; 0: only that of the request.
  std::atomic<std::int64_t> pageSize{0};
  /// Cursors of another epoch are answered with `reset`.
  std::atomic<std::int64_t> cursorEpoch{1};
  /// Show lower-cased parents in path_display, as the service may do.
  std::atomic<bool> displayCaseQuirk{false};
  std::atomic<bool> refuseBeyondBmp{false};
  /// Answers every second commit that begins while another one is in progress with too_many_write_operations.
  std::atomic<bool> writeContention{false};
  /// The same for every such commit.
  std::atomic<bool> singleWriter{false};
  /// The status of these answers: 429 or 409.
  std::atomic<std::int64_t> contentionStatus{429};
  /// Prolongs commits, so that they overlap.
  std::atomic<std::int64_t> commitDelayMs{0};

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
  /// E-mail address of the account used by automatic approval; empty: the first.
  void setApproveAs(std::string email) {
    const std::lock_guard<std::mutex> lock(mutex_);
    approveAs_ = std::move(email);
  }

 private:
  mutable std::mutex mutex_;
  ApproveMode approve_ = ApproveMode::page;  // guarded by mutex_
  std::string approveAs_;                    // guarded by mutex_
};

/// The state that the routes share. Each part is thread-safe.
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

}  // namespace kzv::standin
