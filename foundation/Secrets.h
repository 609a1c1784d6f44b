#pragma once
#include <string>

#include <string.h>

/// Overwrites a secret (token, code, verifier) before its memory is given back, so that neither a later
/// allocation nor a core dump finds it. The text is empty afterwards.
inline void clearSecret(std::string& text) noexcept {
  ::explicit_bzero(text.data(), text.capacity());
  text.clear();
}

/// Clears a secret of the current scope at its end.
class SecretScope {
 public:
  explicit SecretScope(std::string& text) noexcept : text_(text) {}
  SecretScope(const SecretScope&) = delete;
  SecretScope& operator=(const SecretScope&) = delete;
  ~SecretScope() { clearSecret(text_); }

 private:
  std::string& text_;
};
