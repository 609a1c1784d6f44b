#include "foundation/NSObject.h"

#include <cstdlib>
#include <typeinfo>

#include <cxxabi.h>
#include <fmt/format.h>

#include "foundation/ObjectExtension.h"

NSObject::~NSObject() { ObjectExtension::destroy(extension_.load(std::memory_order_acquire)); }

std::size_t NSObject::hash() const { return std::hash<const void*>{}(this); }

bool NSObject::isEqual(const NSObject& other) const { return this == &other; }

std::string NSObject::className() const {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(
      abi::__cxa_demangle(typeid(*this).name(), nullptr, nullptr, &status), std::free);
  return status == 0 ? name.get() : typeid(*this).name();
}

std::string NSObject::description() const {
  return fmt::format("<{}: {}>", className(), fmt::ptr(static_cast<const void*>(this)));
}
