#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "standin/http/Http.h"

namespace kzv::standin {

/// The requests in order of arrival, for tests that assert calls and counts. The caller must omit tokens,
/// codes and secrets from `arg`. Keeps the newest 200,000 requests. Thread-safe.
class RequestLog {
 public:
  struct Line {
    std::uint64_t number = 0;
    std::int64_t time = 0;
    std::string method;
    std::string route;
    /// 0 until answered.
    int status = 0;
    /// JSON text, or "null".
    std::string arg;
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
  };

  /// @return the number for setArg() and setStatus().
  std::uint64_t begin(std::string method, std::string route, std::int64_t time,
                      std::shared_ptr<TransferCount> transfer);
  void setArg(std::uint64_t number, std::string argJson);
  void setStatus(std::uint64_t number, int status);
  std::vector<Line> lines() const;
  /// The same, and the log is empty then: no request is missed between two calls.
  std::vector<Line> takeLines();

 private:
  struct Record {
    Line line;
    std::shared_ptr<TransferCount> transfer;
  };
  Record* find(std::uint64_t number);
  std::vector<Line> linesLocked() const;

  mutable std::mutex mutex_;
  std::uint64_t lastNumber_ = 0;  // guarded by mutex_
  std::deque<Record> records_;    // guarded by mutex_
};

}  // namespace kzv::standin
