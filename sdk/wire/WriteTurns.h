#pragma once
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace kzv::sdk {

/// Limits how many files of one account this process stores concurrently. The service changes a tree under
/// one lock and refuses changes that arrive meanwhile. The limit starts at 64; each refusal halves it, down
/// to one, and 32 successes raise it by one (additive increase, multiplicative decrease, as in RFC 5681). The
/// network thread only.
class WriteTurns {
 public:
  using WaitId = std::uint64_t;
  using Go = std::function<void()>;
  enum class Outcome { stored, refused, failed };

  static constexpr int successesBeforeWidening = 32;

  /// Calls `go` when the limit allows: at once (then returns nothing), or from a later leave(). First come,
  /// first served.
  std::optional<WaitId> enter(const std::string& userId, Go go);
  /// Must be called once for each `go` that was called.
  void leave(const std::string& userId, Outcome outcome);
  /// Removes a waiting request.
  void withdraw(const std::string& userId, WaitId waiting);
  /// Call when another change of the account was refused: halves the limit.
  void narrow(const std::string& userId);

 private:
  static constexpr int unlimited = 64;
  struct Account {
    int limit = unlimited;
    int inFlight = 0;
    int successes = 0;  // since the last refusal or widening
    std::deque<std::pair<WaitId, Go>> waiting;
  };
  static void halve(Account& account);
  static void startWaiting(Account& account);

  std::map<std::string, Account> accounts_;
  WaitId lastWait_ = 0;
};

}  // namespace kzv::sdk
