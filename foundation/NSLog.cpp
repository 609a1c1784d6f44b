#include "foundation/NSLog.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <memory>
#include <mutex>
#include <string>

#include <fcntl.h>
#include <fmt/format.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

spdlog::level::level_enum spdLevel(NSLogLevel level) {
  switch (level) {
    case NSLogLevel::debug:
      return spdlog::level::debug;
    case NSLogLevel::info:
      return spdlog::level::info;
    case NSLogLevel::warning:
      return spdlog::level::warn;
    case NSLogLevel::error:
      return spdlog::level::err;
    case NSLogLevel::off:
      return spdlog::level::off;
  }
  return spdlog::level::off;
}

std::shared_ptr<spdlog::logger> loggerTo(spdlog::sink_ptr sink) {
  auto logger = std::make_shared<spdlog::logger>("kzv", std::move(sink));
  logger->set_pattern("%Y-%m-%dT%H:%M:%S.%e %l %v");
  logger->set_level(spdlog::level::debug);
  logger->flush_on(spdlog::level::debug);
  return logger;
}

/// spdlog creates files as the umask says; ours must be private from the first byte. Null when it cannot be.
spdlog::sink_ptr privateFileSink(const std::string& path) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (file < 0) return nullptr;
  ::close(file);
  return std::make_shared<spdlog::sinks::basic_file_sink_mt>(path);
}

/// The logger in use; swapped whole, so that a line under way keeps the one it began with. Never destroyed.
struct Current {
  std::atomic<NSLogLevel> level{NSLogLevel::warning};
  std::mutex mutex;
  std::shared_ptr<spdlog::logger> logger =
      loggerTo(std::make_shared<spdlog::sinks::stderr_sink_mt>());  // guarded by mutex
};

Current& current() {
  static auto& state = *new Current;
  return state;
}

std::shared_ptr<spdlog::logger> currentLogger() {
  const std::lock_guard lock(current().mutex);
  return current().logger;
}

// The last line of defence: nobody passes secrets here, but a text of the service might hold one. Written by
// hand because std::regex recurses for every character and a long answer would end the stack.

bool isWordCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

/// What tokens, codes and verifiers are made of: base64 of either kind, and their percent-encoded form.
bool isSecretCharacter(char character) {
  return isWordCharacter(character) || std::string_view("-.~+/=%").find(character) != std::string_view::npos;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view start) {
  return text.size() >= start.size() &&
         std::equal(start.begin(), start.end(), text.begin(), [](char left, char right) {
           return left == std::tolower(static_cast<unsigned char>(right));
         });
}

/// Between a secret's name and the secret: quotes and blanks, and a "=" or ":" unless a blank is enough.
std::size_t separatorLength(std::string_view text, bool isBlankEnough) {
  const std::size_t length = std::min(text.find_first_not_of(" \"'=:"), text.size());
  const std::string_view separator = text.substr(0, length);
  return separator.find_first_of(isBlankEnough ? " =:" : "=:") == std::string_view::npos ? 0 : length;
}

/// The length of a secret's name and separator at the front of `text`, 0 when there is none.
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

/// Whether a word is a token by its own looks: the service's short-lived ones begin with "sl.".
bool isBareToken(std::string_view word) { return word.starts_with("sl.") && word.size() >= 12; }

/// "code: 409" and "basic information" hold no secrets; codes and header values are longer.
bool isBlanked(std::string_view nameAndSeparator, std::string_view secret) {
  constexpr std::size_t shortest = 12;
  const bool isAlsoAWord = startsWithIgnoringCase(nameAndSeparator, "basic") ||
                           (startsWithIgnoringCase(nameAndSeparator, "code") && nameAndSeparator[4] != '_');
  return !secret.empty() && (!isAlsoAWord || secret.size() >= shortest);
}

std::string withoutSecrets(std::string_view message) {
  std::string clean;
  clean.reserve(message.size());
  std::size_t at = 0;
  while (at < message.size()) {
    const std::string_view rest = message.substr(at);
    const std::size_t name = secretNameLength(rest);
    const std::size_t secret = secretLength(rest.substr(name));
    const bool isHidden = name > 0 ? isBlanked(rest.substr(0, name), rest.substr(name, secret))
                                   : isBareToken(rest.substr(0, secret));
    if (isHidden) {
      clean.append(rest.substr(0, name)).append("***");
      at += name + secret;
      continue;
    }
    // On to the next word: a name inside a longer word ("zip_code") is another name.
    do {
      clean += message[at++];
    } while (at < message.size() && (isWordCharacter(message[at - 1]) || !isWordCharacter(message[at])));
  }
  return clean;
}

/// A file name may hold a line feed, and a line feed would forge a line.
std::string onOneLine(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x20 || byte == 0x7F) {
      line += fmt::format("\\x{:02X}", byte);
    } else {
      line += character;
    }
  }
  return line;
}

}  // namespace

void NSLog(NSLogLevel level, std::string_view function, std::string_view message) {
  if (level < current().level.load(std::memory_order_relaxed)) return;
  currentLogger()->log(spdLevel(level), "{}: {}", function, onOneLine(withoutSecrets(message)));
}

void setLogLevel(NSLogLevel level) { current().level = level; }

bool setLogFile(std::string_view path) {
  spdlog::sink_ptr sink;
  try {
    if (!path.empty()) sink = privateFileSink(std::string(path));
  } catch (const spdlog::spdlog_ex&) {
    sink = nullptr;
  }
  const bool isOpen = path.empty() || sink;
  if (!sink) sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  auto logger = loggerTo(std::move(sink));
  const std::lock_guard lock(current().mutex);
  current().logger = std::move(logger);
  return isOpen;
}
