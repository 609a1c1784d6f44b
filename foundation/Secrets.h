#pragma once
#include <string>

#include <string.h>

/// Overwrites a secret (token, code, verifier) before its memory is freed, so that neither a later allocation
/// nor a core dump exposes it. The text is empty afterwards.
inline void clearSecret(std::string& text) noexcept {
  ::explicit_bzero(text.data(), text.capacity());
  text.clear();
}

/// Clears a secret at the end of the scope.
class SecretScope {
 public:
  explicit SecretScope(std::string& text) noexcept : text_(text) {}
  SecretScope(const SecretScope&) = delete;
  SecretScope& operator=(const SecretScope&) = delete;
  ~SecretScope() { clearSecret(text_); }

 private:
  std::string& text_;
};
