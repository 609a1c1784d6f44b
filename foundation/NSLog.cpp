#include "foundation/NSLog.h"

#include <atomic>
#include <memory>
#include <string>

#include <fmt/format.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

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

std::atomic<NSLogLevel> leastLevel{NSLogLevel::warning};

/// Never destroyed: threads log until the process ends.
spdlog::logger& logger() {
  static auto& instance = *[] {
    auto* made = new spdlog::logger("kzv", std::make_shared<spdlog::sinks::stderr_sink_mt>());
    made->set_pattern("%Y-%m-%dT%H:%M:%S.%e %l %v");
    made->set_level(spdlog::level::debug);
    made->flush_on(spdlog::level::debug);
    return made;
  }();
  return instance;
}

/// Escapes control characters: file names may contain line feeds, which would forge a log line.
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
  if (level < leastLevel.load(std::memory_order_relaxed)) return;
  logger().log(spdLevel(level), "{}: {}", function, onOneLine(withoutSecrets(message)));
}

void setLogLevel(NSLogLevel level) { leastLevel = level; }
