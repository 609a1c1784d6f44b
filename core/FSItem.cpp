#include "core/FSItem.h"

#include <utility>

#include "core/FSPlugin.h"
#include "foundation/Paths.h"

FSItem::FSItem(std::string path, std::shared_ptr<FSPlugin> fs) : path_(std::move(path)), fs_(std::move(fs)) {}

FSItem::~FSItem() = default;

std::string FSItem::name() const { return lastPathComponent(path_); }

void FSItem::setChangeCallback(ChangeCallback callback) {
  const std::lock_guard lock(mutex_);
  changeCallback_.swap(callback);
  // The old callback is destroyed with the parameter, after the lock: its captures may use this item.
}

FSItem::ChangeCallback FSItem::changeCallback() const {
  const std::lock_guard lock(mutex_);
  return changeCallback_;
}

void FSItem::prepareForChange() {
  const std::lock_guard lock(mutex_);
  isMarkedChanged_ = true;
}

bool FSItem::takeChangeMark() {
  const std::lock_guard lock(mutex_);
  return std::exchange(isMarkedChanged_, false);
}
