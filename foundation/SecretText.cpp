#include "foundation/SecretText.h"

#include <algorithm>
#include <cctype>

// Not std::regex, which recurses per character: a long text would overflow the stack.

namespace {

bool isWordCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

/// The alphabet of tokens, codes and verifiers: base64, base64url and their percent-encoded forms.
bool isSecretCharacter(char character) {
  return isWordCharacter(character) || std::string_view("-.~+/=%").find(character) != std::string_view::npos;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view start) {
  return text.size() >= start.size() &&
         std::equal(start.begin(), start.end(), text.begin(), [](char left, char right) {
           return left == std::tolower(static_cast<unsigned char>(right));
         });
}

/// The length of the separator between a secret's name and the secret: quotes, blanks, and a "=" or ":"
/// unless a blank is enough.
std::size_t separatorLength(std::string_view text, bool isBlankEnough) {
  const std::size_t length = std::min(text.find_first_not_of(" \"'=:"), text.size());
  const std::string_view separator = text.substr(0, length);
  return separator.find_first_of(isBlankEnough ? " =:" : "=:") == std::string_view::npos ? 0 : length;
}

/// The length of a secret's name and separator at the start of `text`, 0 when there is none.
std::size_t secretNameLength(std::string_view text) {
  struct Name {
    std::string_view text;
    bool isBlankEnough;  // as in "Bearer TOKEN"
  };
  static constexpr Name names[] = {{"access_token", false},  {"refresh_token", false}, {"id_token", false},
                                   {"code_verifier", false}, {"client_secret", false}, {"app_secret", false},
                                   {"password", false},      {"code", false},          {"token", false},
                                   {"bearer", true},         {"basic", true}};
  for (const Name& name : names) {
    if (!startsWithIgnoringCase(text, name.text)) continue;
    const std::size_t separator = separatorLength(text.substr(name.text.size()), name.isBlankEnough);
    if (separator > 0) return name.text.size() + separator;
  }
  return 0;
}

std::size_t secretLength(std::string_view text) {
  return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isSecretCharacter) -
                                  text.begin());
}

/// Whether a word looks like a token: the service's short-lived ones begin with "sl.".
bool isBareToken(std::string_view word) { return word.starts_with("sl.") && word.size() >= 12; }

/// "code: 409" and "basic information" hold no secrets; codes and header values are longer.
bool isSecret(std::string_view nameAndSeparator, std::string_view secret) {
  constexpr std::size_t shortest = 12;
  const bool isAlsoAWord = startsWithIgnoringCase(nameAndSeparator, "basic") ||
                           (startsWithIgnoringCase(nameAndSeparator, "code") && nameAndSeparator[4] != '_');
  return !secret.empty() && (!isAlsoAWord || secret.size() >= shortest);
}

}  // namespace

std::string withoutSecrets(std::string_view message) {
  std::string clean;
  clean.reserve(message.size());
  std::size_t at = 0;
  while (at < message.size()) {
    const std::string_view rest = message.substr(at);
    const std::size_t name = secretNameLength(rest);
    const std::size_t secret = secretLength(rest.substr(name));
    const bool isHidden = name > 0 ? isSecret(rest.substr(0, name), rest.substr(name, secret))
                                   : isBareToken(rest.substr(0, secret));
    if (isHidden) {
      clean.append(rest.substr(0, name)).append("***");
      at += name + secret;
      continue;
    }
    // Skip to the next word: a name inside a longer word ("zip_code") is a different name.
    do {
      clean += message[at++];
    } while (at < message.size() && (isWordCharacter(message[at - 1]) || !isWordCharacter(message[at])));
  }
  return clean;
}
