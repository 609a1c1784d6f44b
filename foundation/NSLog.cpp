#include "foundation/NSLog.h"

#include <atomic>
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

#include "foundation/SecretText.h"

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
