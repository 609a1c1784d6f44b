#include "sdk/wire/WriteTurns.h"

#include <algorithm>
#include <utility>

namespace kzv::sdk {

std::optional<WriteTurns::WaitId> WriteTurns::enter(const std::string& userId, Go go) {
  Account& account = accounts_[userId];
  if (account.inFlight < account.limit && account.waiting.empty()) {
    ++account.inFlight;
    go();
    return std::nullopt;
  }
  account.waiting.emplace_back(++lastWait_, std::move(go));
  return lastWait_;
}

void WriteTurns::leave(const std::string& userId, Outcome outcome) {
  Account& account = accounts_[userId];
  if (outcome == Outcome::refused) halve(account);
  --account.inFlight;
  if (outcome == Outcome::stored && ++account.successes >= successesBeforeWidening) {
    account.successes = 0;
    account.limit = std::min(account.limit + 1, unlimited);
  }
  startWaiting(account);
}

void WriteTurns::withdraw(const std::string& userId, WaitId waiting) {
  Account& account = accounts_[userId];
  std::erase_if(account.waiting, [&](const auto& entry) { return entry.first == waiting; });
}

void WriteTurns::narrow(const std::string& userId) { halve(accounts_[userId]); }

void WriteTurns::halve(Account& account) {
  account.successes = 0;
  account.limit = std::max(std::min(account.limit, account.inFlight) / 2, 1);
}

void WriteTurns::startWaiting(Account& account) {
  while (account.inFlight < account.limit && !account.waiting.empty()) {
    const Go go = std::move(account.waiting.front().second);
    account.waiting.pop_front();
    ++account.inFlight;
    go();
  }
}

}  // namespace kzv::sdk
