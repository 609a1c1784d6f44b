#include "foundation/NSArray.h"

#include "foundation/ContainerTeardown.h"

NSArray::~NSArray() { ContainerTeardown::release(items_); }

bool NSArray::isEqual(const NSObject& other) const {
  const auto* array = as<NSArray>(&other);
  if (!array || array->items_.size() != items_.size()) return false;
  for (std::size_t at = 0; at < items_.size(); ++at) {
    if (!::isEqual(items_[at], array->items_[at])) return false;
  }
  return true;
}

std::string NSArray::description() const {
  std::string text = "(";
  for (const id& item : items_) {
    if (text.size() > 1) text += ", ";
    text += item ? item->description() : "<none>";
  }
  return text + ")";
}
