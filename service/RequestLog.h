#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "service/Http.h"

namespace kzv::service {

/// What was asked, in order of arrival, for tests that assert calls and counts. Holds no tokens, codes or
/// secrets: who fills `arg` leaves them out. Keeps the newest 200,000 requests. Thread-safe.
class RequestLog {
 public:
  struct Line {
    std::uint64_t number = 0;
    std::int64_t time = 0;
    std::string method;
    std::string route;
    /// 0 while the answer is not known, and when there was none.
    int status = 0;
    /// JSON text, or "null".
    std::string arg;
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
  };

  /// @return the number to be used in finish().
  std::uint64_t begin(std::string method, std::string route, std::int64_t time,
                      std::shared_ptr<TransferCount> transfer);
  void setArg(std::uint64_t number, std::string argJson);
  void setStatus(std::uint64_t number, int status);
  void clear();
  std::vector<Line> lines() const;

 private:
  struct Record {
    Line line;
    std::shared_ptr<TransferCount> transfer;
  };
  Record* find(std::uint64_t number);

  mutable std::mutex mutex_;
  std::uint64_t lastNumber_ = 0;  // guarded by mutex_
  std::deque<Record> records_;    // guarded by mutex_
};

}  // namespace kzv::service
