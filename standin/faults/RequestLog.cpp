#include "standin/faults/RequestLog.h"

namespace kzv::standin {
namespace {

constexpr std::size_t kMaxLines = 200000;

}  // namespace

std::uint64_t RequestLog::begin(std::string method, std::string route, std::int64_t time,
                                std::shared_ptr<TransferCount> transfer) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Record record;
  record.line.number = ++lastNumber_;
  record.line.time = time;
  record.line.method = std::move(method);
  record.line.route = std::move(route);
  record.line.arg = "null";
  record.transfer = std::move(transfer);
  records_.push_back(std::move(record));
  if (records_.size() > kMaxLines) records_.pop_front();
  return lastNumber_;
}

RequestLog::Record* RequestLog::find(std::uint64_t number) {
  if (records_.empty() || number < records_.front().line.number)
    return nullptr;  // dropped or cleared in the meantime
  return &records_[number - records_.front().line.number];
}

void RequestLog::setArg(std::uint64_t number, std::string argJson) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (Record* record = find(number)) record->line.arg = std::move(argJson);
}

void RequestLog::setStatus(std::uint64_t number, int status) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (Record* record = find(number)) record->line.status = status;
}

std::vector<RequestLog::Line> RequestLog::lines() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return linesLocked();
}

std::vector<RequestLog::Line> RequestLog::takeLines() {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Line> lines = linesLocked();
  records_.clear();
  return lines;
}

std::vector<RequestLog::Line> RequestLog::linesLocked() const {
  std::vector<Line> lines;
  lines.reserve(records_.size());
  for (const auto& record : records_) {
    lines.push_back(record.line);
    lines.back().bytesIn = record.transfer->bytesIn;
    lines.back().bytesOut = record.transfer->bytesOut;
  }
  return lines;
}

}  // namespace kzv::standin
