#pragma once
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

/// The pairs as application/x-www-form-urlencoded text (RFC 6749, appendix B); pairs with an empty value are
/// left out. Fits a URL's query as well.
std::string formText(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs);
