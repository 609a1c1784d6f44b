#include "json/QJJsonWriter.h"

#include <array>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

#include "json/QJJsonProxying.h"

namespace {

constexpr std::size_t maxProxiesInARow = 512;
constexpr std::size_t firstCapacityBytes = 128;

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
      estimateAtBytes_ = firstEstimateAtBytes;
      std::string text;
      text.reserve(firstCapacityBytes);
      if (appendValue(written, text)) return text;
    }
    const QJJsonProxying* offer = proxying(written.get());
    if (offer && proxies < maxProxiesInARow) {
      written = offer->proxyForJson();
      continue;
    }
    if (offer) addErrorWithCode(QJJsonErrorCode::depth, "Nested too deep");
    // Each object that a proxy stood for fails in its turn.
    for (std::size_t failed = 0; failed <= proxies; ++failed) {
      addErrorWithCode(QJJsonErrorCode::fragment, "Not valid type for JSON");
    }
    setError(error, lastError());
    return std::nullopt;
  }
}

bool QJJsonWriter::appendValue(const id& value, std::string& into) {
  JsonOutput output(into);
  return write(value.get(), output);
}

bool QJJsonWriter::appendArray(const NSArray& array, std::string& into) {
  JsonOutput output(into);
  return write(&array, output);
}

bool QJJsonWriter::appendDictionary(const NSDictionary& dictionary, std::string& into) {
  JsonOutput output(into);
  return write(&dictionary, output);
}

bool QJJsonWriter::appendString(const NSString& string, std::string& into) {
  JsonOutput output(into);
  return write(&string, output);
}

bool QJJsonWriter::write(const NSObject* value, JsonOutput& into) {
  const std::size_t outermost = open_.size();
  Step step = beginValue(value, into);
  for (;;) {
    switch (step) {
      case Step::needsValue:
        step = beginValue(pending_, into);
        break;
      case Step::done:
        if (open_.size() == outermost) return true;
        step = goOn(into);
        break;
      case Step::failed:
        if (!failOpenValues(outermost)) return false;
        step = Step::done;
        break;
    }
  }
}

QJJsonWriter::Step QJJsonWriter::beginValue(const NSObject* value, JsonOutput& into) {
  switch (value ? value->kind() : NSKind::object) {
    case NSKind::dictionary:
      return beginDictionary(static_cast<const NSDictionary&>(*value), into);
    case NSKind::array:
      return beginArray(static_cast<const NSArray&>(*value), into);
    case NSKind::string:
      into.addQuoted(static_cast<const NSString&>(*value).text());
      return Step::done;
    case NSKind::number:
      return appendNumber(static_cast<const NSNumber&>(*value), into);
    case NSKind::null:
      into.add("null");
      return Step::done;
    case NSKind::object:
    case NSKind::date:
    case NSKind::url:
    case NSKind::error:
      break;
  }
  return beginProxy(value);
}

QJJsonWriter::Step QJJsonWriter::beginProxy(const NSObject* value) {
  const QJJsonProxying* offer = proxying(value);
  if (!offer) {
    return fail(QJJsonErrorCode::unsupported, fmt::format("JSON serialisation not supported for {}",
                                                          value ? value->className() : "(null)"));
  }
  OpenValue open;
  open.proxiesInARow = open_.empty() ? 1 : open_.back().proxiesInARow + 1;
  if (open.proxiesInARow > maxProxiesInARow) return fail(QJJsonErrorCode::depth, "Nested too deep");
  open.proxy = offer->proxyForJson();
  pending_ = open.proxy.get();
  open_.push_back(std::move(open));
  return Step::needsValue;
}

QJJsonWriter::Step QJJsonWriter::appendNumber(const NSNumber& number, JsonOutput& into) {
  switch (number.origin()) {
    case NSNumber::Origin::boolean:
    case NSNumber::Origin::character:
      into.add(number.boolValue() ? "true" : "false");
      return Step::done;
    case NSNumber::Origin::integer: {
      std::array<char, 24> text;
      const char* const end = std::to_chars(text.data(), text.data() + text.size(), number.int64Value()).ptr;
      into.add({text.data(), static_cast<std::size_t>(end - text.data())});
      return Step::done;
    }
    case NSNumber::Origin::real32:
    case NSNumber::Origin::real64:
    case NSNumber::Origin::decimal:
      break;
  }
  if (number.isNaN()) return fail(QJJsonErrorCode::unsupported, "NaN is not a valid number in JSON");
  // The largest decimal is far below the largest double.
  if (number.origin() != NSNumber::Origin::decimal && std::isinf(number.doubleValue())) {
    return fail(QJJsonErrorCode::unsupported, "Infinity is not a valid number in JSON");
  }
  into.add(number.stringValue());
  return Step::done;
}

QJJsonWriter::Step QJJsonWriter::fail(QJJsonErrorCode code, std::string_view message) {
  addErrorWithCode(code, message);
  return Step::failed;
}
