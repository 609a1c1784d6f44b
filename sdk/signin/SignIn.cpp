#include "sdk/signin/SignIn.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "foundation/Fatal.h"
#include "foundation/Secrets.h"
#include "sdk/wire/ContentHash.h"
#include "sdk/wire/FormText.h"

namespace kzv::sdk {

namespace {

constexpr std::string_view redirectPath = "/dropbox-sign-in";
// Part of the registered redirect address, so it is fixed.
constexpr std::uint16_t registeredPort = 47892;

std::uint16_t redirectPort() {
  const char* text = std::getenv("KZV_SIGN_IN_PORT");
  const std::string_view digits(text ? text : "");
  std::uint16_t port = 0;
  const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  const bool isNumber = !digits.empty() && failure == std::errc{} && end == digits.data() + digits.size();
  return isNumber ? port : registeredPort;
}

/// RFC 4648, section 5, without padding.
std::string base64Url(std::string_view bytes) {
  std::vector<unsigned char> text(4 * (bytes.size() / 3 + 1) + 1);
  const int size = EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char*>(bytes.data()),
                                   static_cast<int>(bytes.size()));
  std::string encoded(reinterpret_cast<const char*>(text.data()), static_cast<std::size_t>(size));
  for (char& c : encoded) c = c == '+' ? '-' : c == '/' ? '_' : c;
  while (encoded.ends_with('=')) encoded.pop_back();
  return encoded;
}

std::string randomText(std::size_t byteCount) {
  std::string bytes(byteCount, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(byteCount)) != 1) {
    fatalInvariant("the system must provide random numbers");
  }
  return base64Url(bytes);
}

bool isSame(std::string_view left, std::string_view right) {
  return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

bool canBeCode(std::string_view text) {
  constexpr std::size_t longestCode = 1024;
  if (text.empty() || text.size() > longestCode) return false;
  for (const char c : text) {
    if (c < '!' || c > '~') return false;
  }
  return true;
}

}  // namespace

SignIn::SignIn(bool useRedirect, std::function<void()> onAnswer)
    : verifier_(randomText(32)), stateText_(randomText(16)), onAnswer_(std::move(onAnswer)) {
  if (!useRedirect) return;
  listener_ = LoopbackListener::open(redirectPort(), std::string(redirectPath),
                                     [this](const std::string& query) { return redirected(query); });
  // Without the listener the page shows the code, which a person can still type in.
  if (!listener_) return;
  const std::lock_guard lock(mutex_);
  redirectUri_ = "http://localhost:" + std::to_string(listener_->port()) + std::string(redirectPath);
}

SignIn::~SignIn() {
  listener_.reset();
  clearSecret(verifier_);
  clearSecret(code_);
}

namespace {
std::atomic<std::chrono::milliseconds>& limitOfSignIns() {
  static std::atomic<std::chrono::milliseconds> limit{std::chrono::minutes(10)};
  return limit;
}
}  // namespace

std::chrono::milliseconds SignIn::timeLimit() { return limitOfSignIns(); }
void SignIn::setTimeLimit(std::chrono::milliseconds limit) { limitOfSignIns() = limit; }

std::string SignIn::challengeFor(std::string_view verifier) {
  Sha256 digest;
  digest.update(verifier);
  return base64Url(digest.finish());
}

std::string SignIn::pageAddress(std::string_view webOrigin, std::string_view appKey) const {
  const std::lock_guard lock(mutex_);
  return std::string(webOrigin) + "/oauth2/authorize?" +
         formText({{"client_id", appKey},
                   {"response_type", "code"},
                   {"token_access_type", "offline"},
                   {"code_challenge", challengeFor(verifier_)},
                   {"code_challenge_method", "S256"},
                   {"state", stateText_},
                   {"redirect_uri", redirectUri_}});
}

LoopbackListener::Page SignIn::redirected(const std::string& query) {
  const auto refusal = [](const char* reason) {
    return LoopbackListener::Page{400, "Not signed in", reason, nullptr};
  };
  const auto state = formField(query, "state");
  if (!state || !isSame(*state, stateText_)) {
    return refusal("This is not the answer to the current sign-in.");
  }
  const auto code = formField(query, "code");
  const bool isApproved = code && canBeCode(*code);
  if (!isApproved && !formField(query, "error")) return refusal("The answer has no code.");
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::expired) return refusal("This sign-in has taken too long. Start again.");
    if (state_ != State::waiting) return refusal("This sign-in has already been answered.");
    state_ = isApproved ? State::approved : State::denied;
    if (isApproved) code_ = *code;
  }
  if (!isApproved) {
    return {200, "Not signed in",
            "The sign-in was declined, and nothing is shared. You can close this window.", onAnswer_};
  }
  // Not "signed in": the code has not been exchanged for tokens yet.
  return {200, "Access allowed", "You can close this window and go back to the application.", onAnswer_};
}

SignIn::State SignIn::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

bool SignIn::expire() {
  const std::lock_guard lock(mutex_);
  if (state_ == State::denied || state_ == State::expired || isExchanging_) return false;
  state_ = State::expired;
  clearSecret(code_);
  return true;
}

bool SignIn::takeCode(std::string_view code) {
  const auto first = code.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return false;
  code = code.substr(first, code.find_last_not_of(" \t\r\n") - first + 1);
  if (!canBeCode(code)) return false;
  const std::lock_guard lock(mutex_);
  if (state_ == State::expired) return false;
  code_ = code;
  state_ = State::approved;
  return true;
}

bool SignIn::beginExchange() {
  const std::lock_guard lock(mutex_);
  return !std::exchange(isExchanging_, true);
}

void SignIn::endExchange() {
  const std::lock_guard lock(mutex_);
  isExchanging_ = false;
}

std::string SignIn::tokenForm(std::string_view appKey) const {
  const std::lock_guard lock(mutex_);
  if (state_ != State::approved) fatalInvariant("a sign-in must be approved before its code is exchanged");
  // With a verifier no application secret is needed.
  return formText({{"grant_type", "authorization_code"},
                   {"code", code_},
                   {"code_verifier", verifier_},
                   {"client_id", appKey},
                   {"redirect_uri", redirectUri_}});
}

}  // namespace kzv::sdk
