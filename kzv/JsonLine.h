#pragma once
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace kzv::cli {

/// One field of a result in JSON. Texts may contain any bytes (see validUtf8).
struct JsonField {
  const char* name;
  std::variant<bool, std::int64_t, std::uint64_t, std::string> value;
};

/// A JSON object on one line (RFC 8259), with the fields in this order. Any thread.
std::string jsonLine(const std::vector<JsonField>& fields);

}  // namespace kzv::cli
