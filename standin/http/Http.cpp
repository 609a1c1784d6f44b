#include "standin/http/Http.h"

#include <algorithm>

#include <strings.h>

namespace kzv::standin {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<std::string_view> HttpRequest::header(std::string_view name) const {
  const auto found = std::find_if(headers.begin(), headers.end(),
                                  [&](const auto& field) { return equalsIgnoringCase(field.first, name); });
  if (found == headers.end()) return std::nullopt;
  return std::string_view(found->second);
}

}  // namespace kzv::standin
