#include "json/JSONRepresentation.h"

#include <fmt/format.h>

#include "foundation/NSLog.h"
#include "json/QJJsonWriter.h"

std::optional<std::string> JSONRepresentation(const id& object) {
  QJJsonWriter writer;
  auto text = writer.stringWithObject(object);
  if (!text) {
    NSLog(NSLogLevel::error, "JSONRepresentation",
          fmt::format("-JSONRepresentation failed. Error trace is: {}", writer.errorTrace()->description()));
  }
  return text;
}
