#include "standin/faults/Faults.h"

#include <chrono>
#include <utility>

namespace kzv::standin {

class Faults::Rule {
 public:
  Rule(std::int64_t number, FaultOrder ordered) : id(number), order(std::move(ordered)) {}

  bool isDue() const {
    if (seen <= order.after || (order.times != 0 && claimed >= order.times)) return false;
    return (seen - order.after) % order.every == 0;
  }

  const std::int64_t id;
  const FaultOrder order;
  // Guarded by the mutex of Faults.
  std::uint64_t seen = 0;
  std::uint64_t claimed = 0;
  std::uint64_t hits = 0;
};

std::int64_t Faults::add(FaultOrder order) {
  const std::lock_guard<std::mutex> lock(mutex_);
  rules_.push_back(std::make_shared<Rule>(++lastId_, std::move(order)));
  return lastId_;
}

void Faults::clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  rules_.clear();
  ++cleared_;
  ended_.notify_all();
}

void Faults::stop() {
  const std::lock_guard<std::mutex> lock(mutex_);
  stopping_ = true;
  ended_.notify_all();
}

bool Faults::delay(const Claim& claim) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !ended_.wait_for(lock, std::chrono::milliseconds(claim->order.delayMs),
                          [this, before = cleared_] { return stopping_ || cleared_ != before; });
}

std::vector<Faults::Report> Faults::report() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Report> reports;
  reports.reserve(rules_.size());
  for (const auto& rule : rules_) reports.push_back({rule->id, rule->order, rule->claimed, rule->hits});
  return reports;
}

Faults::Claim Faults::claim(const std::string& route) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Claim due;
  for (const auto& rule : rules_) {
    if (rule->order.route != "*" && rule->order.route != route) continue;
    ++rule->seen;
    if (due || !rule->isDue()) continue;
    ++rule->claimed;
    due = rule;
  }
  return due;
}

const FaultOrder& Faults::order(const Claim& claim) { return claim->order; }

void Faults::hit(const Claim& claim) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++claim->hits;
}

}  // namespace kzv::standin
