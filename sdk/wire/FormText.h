#pragma once
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kzv::sdk {

/// The pairs as application/x-www-form-urlencoded text (RFC 6749, appendix B); pairs with an empty value are
/// omitted. Also valid as a URL query.
std::string formText(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs);
/// The value of the field `name` of such a text; nothing when it is missing.
std::optional<std::string> formField(std::string_view text, std::string_view name);

}  // namespace kzv::sdk
