#pragma once
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/NSArray.h"
#include "foundation/NSDictionary.h"
#include "foundation/NSError.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "json/QJJsonBase.h"

// What tests of the reader and writer compare, as text that a failed test prints.

using Chain = std::vector<std::string>;

/// The trace, innermost error first, each as "2 Leading 0 disallowed in number"; an error of a foreign
/// domain, or not chained to the one before it, says so.
inline Chain chainOf(const QJJsonBase& base) {
  Chain lines;
  const auto trace = base.errorTrace();
  id previous;
  for (const id& item : trace ? trace->items() : std::vector<id>()) {
    const auto error = as<NSError>(item);
    std::string line = std::to_string(error->code()) + " " + error->localizedDescription();
    if (error->domain() != "org.vantorlek.JSON.ErrorDomain") line += " (domain " + error->domain() + ")";
    if (error->detail("NSUnderlyingError") != previous) line += " (not chained)";
    lines.push_back(line);
    previous = item;
  }
  return lines;
}

/// A value with the kind of each part: integers as i1, decimals d1.5, booleans b1, strings in quotes.
inline std::string shown(const id& value) {
  if (!value) return "nothing";
  std::string text;
  switch (value->kind()) {
    case NSKind::array:
      for (const id& item : as<NSArray>(value)->items()) text += (text.empty() ? "" : ",") + shown(item);
      return text.insert(0, 1, '[').append(1, ']');
    case NSKind::dictionary:
      for (const auto& [key, item] : as<NSDictionary>(value)->entries()) {
        text += (text.empty() ? "" : ",") + shown(key) + ":" + shown(item);
      }
      return text.insert(0, 1, '{').append(1, '}');
    case NSKind::string:
      return text.append(1, '"').append(*textOf(value)).append(1, '"');
    case NSKind::number:
      switch (as<NSNumber>(value)->origin()) {
        case NSNumber::Origin::boolean:
          return text.append("b").append(value->description());
        case NSNumber::Origin::integer:
          return text.append("i").append(value->description());
        case NSNumber::Origin::decimal:
          return text.append("d").append(value->description());
        default:
          return text.append("?").append(value->description());
      }
    default:
      return value->description();
  }
}

inline std::string repeated(std::string_view text, std::size_t times) {
  std::string whole;
  while (times-- > 0) whole += text;
  return whole;
}
