#include "kzv/JsonLine.h"

#include <boost/json.hpp>

#include "kzv/Formatting.h"

namespace kzv::cli {

namespace {
boost::json::value jsonOf(bool value) { return value; }
boost::json::value jsonOf(std::int64_t value) { return value; }
boost::json::value jsonOf(std::uint64_t value) { return value; }
boost::json::value jsonOf(const std::string& value) { return boost::json::string(validUtf8(value)); }
}  // namespace

std::string jsonLine(const std::vector<JsonField>& fields) {
  boost::json::object object;
  for (const auto& [name, value] : fields)
    object[name] = std::visit([](const auto& it) { return jsonOf(it); }, value);
  return boost::json::serialize(object);
}

}  // namespace kzv::cli
