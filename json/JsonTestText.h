#pragma once
#include <string>
#include <vector>

#include "foundation/NSArray.h"
#include "foundation/NSError.h"
#include "json/QJJsonBase.h"

/// The trace, innermost error first, each as "2 Leading 0 disallowed in number"; an error of another domain,
/// or not chained to the one before it, says so.
using Chain = std::vector<std::string>;
inline Chain chainOf(const QJJsonBase& base) {
  Chain lines;
  const auto trace = base.errorTrace();
  id previous;
  for (const id& item : trace ? trace->items() : std::vector<id>()) {
    const auto error = as<NSError>(item);
    lines.push_back(std::to_string(error->code()) + " " + error->localizedDescription());
    if (error->domain() != "org.vantorlek.JSON.ErrorDomain")
      lines.back() += " (domain " + error->domain() + ")";
    if (error->detail("NSUnderlyingError") != previous) lines.back() += " (not chained)";
    previous = item;
  }
  return lines;
}

inline std::string repeated(const std::string& text, std::size_t times) {
  std::string whole;
  while (times-- > 0) whole += text;
  return whole;
}
