#include "foundation/NSLog.h"

#include <atomic>
#include <memory>
#include <regex>
#include <string>

#include <fcntl.h>
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
  logger->set_pattern("%Y-%m-%dT%H:%M:%S.%e %^%l%$ %v");
  logger->set_level(spdlog::level::warn);
  logger->flush_on(spdlog::level::debug);
  return logger;
}

/// The logger in use; swapped whole, so that a line under way keeps the one it began with. Never destroyed.
std::atomic<std::shared_ptr<spdlog::logger>>& current() {
  static auto& logger = *new std::atomic<std::shared_ptr<spdlog::logger>>(
      loggerTo(std::make_shared<spdlog::sinks::stderr_sink_mt>()));
  return logger;
}

/// The last line of defence: nobody passes secrets here, but a text of the service might hold one.
std::string withoutSecrets(std::string_view message) {
  static const auto& secret = *new std::regex(
      R"(((?:access_token|refresh_token|code_verifier|client_secret|code|Bearer|Basic)["']?\s*[=: ]\s*["']?)[A-Za-z0-9._~+/=-]{6,})",
      std::regex::icase | std::regex::optimize);
  return std::regex_replace(std::string(message), secret, "$1***");
}

}  // namespace

void NSLog(NSLogLevel level, std::string_view function, std::string_view message) {
  const auto logger = current().load();
  if (!logger->should_log(spdLevel(level))) return;
  logger->log(spdLevel(level), "{}: {}", function, withoutSecrets(message));
}

void setLogLevel(NSLogLevel level) { current().load()->set_level(spdLevel(level)); }

bool setLogFile(std::string_view path) {
  const auto level = current().load()->level();
  spdlog::sink_ptr sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  bool isOpen = path.empty();
  if (!path.empty()) {
    const std::string name(path);
    // spdlog creates files as the umask says; ours must be private from the first byte.
    const int file = ::open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file >= 0) {
      ::close(file);
      try {
        sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(name);
        isOpen = true;
      } catch (const spdlog::spdlog_ex&) {
        isOpen = false;
      }
    }
  }
  auto logger = loggerTo(std::move(sink));
  logger->set_level(level);
  current().store(std::move(logger));
  return isOpen;
}
