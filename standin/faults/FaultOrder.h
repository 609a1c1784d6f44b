#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kzv::standin {

class ArgReader;
class JsonWriter;

enum class Corruption {
  none,
  request,
  response,
  file,  // the body with the file's bytes
};

/// One failure to inject, as requested over the admin route; README.md describes the fields. To add a
/// failure, add a field here, its name in FaultOrder.cpp and its action in FaultRun.cpp.
struct FaultOrder {
  /// "files/download", "oauth2/token", ...; "*" for every route except the admin ones.
  std::string route;
  /// Number of matching requests to let pass first.
  std::uint64_t after = 0;
  /// Number of requests to fail; 0 for no limit.
  std::uint64_t times = 1;
  /// Fail only every Nth matching request.
  std::uint64_t every = 1;

  std::int64_t delayMs = 0;
  std::optional<int> status;
  std::string body;
  std::string contentType;
  std::optional<std::int64_t> retryAfterSeconds;
  // Offsets in the body, in bytes.
  std::optional<std::uint64_t> cutRequestAfter;
  std::optional<std::uint64_t> cutResponseAfter;
  std::optional<std::uint64_t> stallAfter;
  bool dropAnswer = false;
  Corruption corrupt = Corruption::none;
};

/// Throws BadArgument, also for an unknown field.
FaultOrder readFaultOrder(const ArgReader& reader);
/// Writes the fields that are set into the open object.
void writeFaultOrder(JsonWriter& json, const FaultOrder& order);

}  // namespace kzv::standin
