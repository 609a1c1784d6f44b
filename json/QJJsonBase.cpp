#include "json/QJJsonBase.h"

#include <algorithm>
#include <utility>

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
  NSErrorRef error = NSError::withText(QJJSONErrorDomain, static_cast<int>(code), std::string(description),
                                       {{NSUnderlyingErrorKey, lastError()}});
  changeErrorTrace([&](std::vector<NSErrorRef>& trace) { trace.push_back(std::move(error)); });
}

void QJJsonBase::clearErrorTrace() {
  std::vector<NSErrorRef> dropped;  // released after the lock
  changeErrorTrace([&](std::vector<NSErrorRef>& trace) { trace.swap(dropped); });
}

template <class Change>
void QJJsonBase::changeErrorTrace(Change change) {
  notifyObservers(&Registration::willChange);
  {
    const std::lock_guard lock(errorTraceMutex_);
    change(errorTrace_);
  }
  notifyObservers(&Registration::didChange);
}

void QJJsonBase::notifyObservers(Observer Registration::*moment) noexcept {
  if (observers_.empty()) return;
  const auto registrations = observers_;  // a copy: a callback may add and remove observers
  for (const auto& registration : registrations) {
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
