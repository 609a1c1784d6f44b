#include "json/QJJsonWriter.h"

#include <cmath>

#include <fmt/format.h>

#include "foundation/NSDecimalNumber.h"
#include "json/JsonText.h"
#include "json/QJJsonProxying.h"

namespace {

constexpr std::size_t maxProxiesInARow = 512;
constexpr std::size_t initialCapacityBytes = 128;

const QJJsonProxying* proxying(const NSObject* value) { return dynamic_cast<const QJJsonProxying*>(value); }

bool isContainer(const NSObject* value) {
  return value && (value->kind() == NSKind::dictionary || value->kind() == NSKind::array);
}

}  // namespace

std::optional<std::string> QJJsonWriter::stringWithObject(const id& value, NSErrorRef* error) {
  id written = value;
  for (std::size_t proxies = 0;; ++proxies) {
    clearErrorTrace();
    if (isContainer(written.get())) {
      depth_ = 0;
      std::string text;
      text.reserve(initialCapacityBytes);
      if (appendValue(written, text)) return text;
    }
    const QJJsonProxying* offer = proxying(written.get());
    if (offer && proxies < maxProxiesInARow) {
      written = offer->proxyForJson();
      continue;
    }
    if (offer) addErrorWithCode(QJJsonErrorCode::depth, "Nested too deep");
    // Each object that was replaced by its proxy adds an error.
    for (std::size_t failed = 0; failed <= proxies; ++failed) {
      addErrorWithCode(QJJsonErrorCode::fragment, "Not valid type for JSON");
    }
    setError(error, lastError());
    return std::nullopt;
  }
}

bool QJJsonWriter::appendValue(const id& value, std::string& into) { return write(value.get(), into); }

bool QJJsonWriter::appendArray(const NSArray& array, std::string& into) { return write(&array, into); }

bool QJJsonWriter::appendDictionary(const NSDictionary& dictionary, std::string& into) {
  return write(&dictionary, into);
}

bool QJJsonWriter::appendString(const NSString& string, std::string& into) { return write(&string, into); }

bool QJJsonWriter::write(const NSObject* value, std::string& into) {
  const std::size_t outermost = open_.size();
  bool succeeded = beginValue(value, into);
  for (;;) {
    if (!succeeded && !failOpenValues(outermost)) return false;
    if (open_.size() == outermost) return true;
    succeeded = continueInnermost(into);
  }
}

bool QJJsonWriter::beginValue(const NSObject* value, std::string& into) {
  switch (value ? value->kind() : NSKind::object) {
    case NSKind::dictionary:
      return beginContainer({.dictionary = static_cast<const NSDictionary*>(value)}, '{', into);
    case NSKind::array:
      return beginContainer({.array = static_cast<const NSArray*>(value)}, '[', into);
    case NSKind::string:
      appendQuoted(static_cast<const NSString*>(value)->text(), into);
      return true;
    case NSKind::number:
      return appendNumber(static_cast<const NSNumber&>(*value), into);
    case NSKind::null:
      into += "null";
      return true;
    case NSKind::object:
    case NSKind::date:
    case NSKind::url:
    case NSKind::error:
      break;
  }
  return beginProxy(value);
}

bool QJJsonWriter::beginProxy(const NSObject* value) {
  const QJJsonProxying* offer = proxying(value);
  if (!offer) {
    return fail(QJJsonErrorCode::unsupported, fmt::format("JSON serialisation not supported for {}",
                                                          value ? value->className() : "(null)"));
  }
  const std::size_t proxiesInARow = open_.empty() ? 1 : open_.back().proxiesInARow + 1;
  if (proxiesInARow > maxProxiesInARow) return fail(QJJsonErrorCode::depth, "Nested too deep");
  open_.push_back({.proxy = offer->proxyForJson(), .proxiesInARow = proxiesInARow});
  return true;
}

bool QJJsonWriter::appendNumber(const NSNumber& number, std::string& into) {
  switch (number.origin()) {
    case NSNumber::Origin::boolean:
    case NSNumber::Origin::character:
      into += number.boolValue() ? "true" : "false";
      return true;
    case NSNumber::Origin::integer: {
      const fmt::format_int text(number.int64Value());
      into.append(text.data(), text.size());
      return true;
    }
    case NSNumber::Origin::decimal:
      if (number.isNaN()) break;
      into += static_cast<const NSDecimalNumber&>(number).text();
      return true;
    case NSNumber::Origin::real:
      break;
  }
  if (number.isNaN()) return fail(QJJsonErrorCode::unsupported, "NaN is not a valid number in JSON");
  if (std::isinf(number.doubleValue())) {
    return fail(QJJsonErrorCode::unsupported, "Infinity is not a valid number in JSON");
  }
  into += number.stringValue();
  return true;
}
