#include "json/QJJsonBase.h"

#include <algorithm>
#include <utility>

#include "foundation/NSDictionary.h"
#include "foundation/NSString.h"

namespace {

/// A refusal deep inside the text repeats one message at every level outside it: those errors share its
/// object.
id messageObject(std::string_view description, const NSErrorRef& previous) {
  if (previous) {
    id last = previous->detail(NSLocalizedDescriptionKey);
    if (const std::string* text = textOf(last); text && *text == description) return last;
  }
  return str(std::string(description));
}

NSErrorRef makeError(QJJsonErrorCode code, std::string_view description, NSErrorRef underlying) {
  static const id& descriptionKey = *new id(str(std::string(NSLocalizedDescriptionKey)));
  static const id& underlyingKey = *new id(str(std::string(NSUnderlyingErrorKey)));
  NSDictionary::Entries userInfo;
  userInfo.reserve(2);
  userInfo.emplace_back(descriptionKey, messageObject(description, underlying));
  if (underlying) userInfo.emplace_back(underlyingKey, std::move(underlying));
  return std::make_shared<NSError>(std::string(QJJSONErrorDomain), static_cast<int>(code),
                                   std::make_shared<NSDictionary>(std::move(userInfo)));
}

}  // namespace

std::shared_ptr<NSArray> QJJsonBase::errorTrace() const {
  const std::lock_guard lock(errorTraceMutex_);
  if (errorTrace_.empty()) return nullptr;
  return std::make_shared<NSArray>(std::vector<id>(errorTrace_.begin(), errorTrace_.end()));
}

NSErrorRef QJJsonBase::lastError() const {
  const std::lock_guard lock(errorTraceMutex_);
  return errorTrace_.empty() ? nullptr : errorTrace_.back();
}

void QJJsonBase::addErrorWithCode(QJJsonErrorCode code, std::string_view description) {
  NSErrorRef error = makeError(code, description, lastError());
  changeErrorTrace([&](std::vector<NSErrorRef>& trace) { trace.push_back(std::move(error)); });
}

void QJJsonBase::clearErrorTrace() {
  std::vector<NSErrorRef> dropped;  // released after the lock
  changeErrorTrace([&](std::vector<NSErrorRef>& trace) { trace.swap(dropped); });
}

template <class Change>
void QJJsonBase::changeErrorTrace(Change change) {
  tellObservers(&Registration::willChange);
  {
    const std::lock_guard lock(errorTraceMutex_);
    change(errorTrace_);
  }
  tellObservers(&Registration::didChange);
}

void QJJsonBase::tellObservers(Observer Registration::*moment) noexcept {
  if (observers_.empty()) return;
  const auto told = observers_;  // an observer may come or go while they are told
  for (const auto& registration : told) {
    const bool isRegistered =
        std::find(observers_.begin(), observers_.end(), registration) != observers_.end();
    if (isRegistered && *registration.*moment) (*registration.*moment)();
  }
}

std::size_t QJJsonBase::addErrorTraceObserver(Observer willChange, Observer didChange) {
  const std::size_t token = ++lastToken_;
  observers_.push_back(
      std::make_shared<Registration>(Registration{token, std::move(willChange), std::move(didChange)}));
  return token;
}

void QJJsonBase::removeErrorTraceObserver(std::size_t token) {
  std::erase_if(observers_, [token](const auto& registration) { return registration->token == token; });
}
