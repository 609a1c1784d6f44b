#include "core/DLog.h"

#include "foundation/NSLog.h"

void DLog(std::string_view message, std::string_view function) {
  NSLog(NSLogLevel::debug, function, message);
}

void DLogWarning(std::string_view message, std::string_view function) {
  NSLog(NSLogLevel::warning, function, message);
}
