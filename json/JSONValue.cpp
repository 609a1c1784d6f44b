#include "json/JSONValue.h"

#include <fmt/format.h>

#include "foundation/NSLog.h"
#include "json/QJJsonParser.h"

id JSONValue(std::string_view text) {
  QJJsonParser parser;
  id object = parser.objectWithString(text);
  if (!object) {
    NSLog(NSLogLevel::error, "JSONValue",
          fmt::format("-JSONValue failed. Error trace is: {}", parser.errorTrace()->description()));
  }
  return object;
}
