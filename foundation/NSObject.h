#pragma once
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>

class NSObject;

/// A counted reference to any object; may be empty. Counting is thread-safe; the object is as thread-safe as
/// its class says. Value classes (strings, numbers, dates, arrays, dictionaries, errors) are immutable.
using id = std::shared_ptr<NSObject>;

/// The type of a value object, found with a virtual call instead of a dynamic_cast.
enum class NSKind : unsigned char { object, string, number, null, date, url, array, dictionary, error };

/// Root class. Support for locks and associated values costs one pointer per object that uses neither.
class NSObject {
 public:
  NSObject() = default;
  NSObject(const NSObject&) = delete;
  NSObject& operator=(const NSObject&) = delete;
  virtual ~NSObject();

  /// Equal objects have equal hashes. The default is identity for both.
  virtual std::size_t hash() const;
  virtual bool isEqual(const NSObject& other) const;

  /// The class name as written in the source, e.g. "KZVDropboxFS".
  virtual std::string className() const;
  /// A text for logs and messages; of value classes the value. Never contains a secret.
  virtual std::string description() const;
  virtual NSKind kind() const noexcept { return NSKind::object; }

 private:
  friend class ObjectExtension;
  mutable std::atomic<class ObjectExtension*> extension_{nullptr};
};

/// The object as a T, or null when it is of another class. Constant time for value classes (those with a
/// staticKind; a class derived from one specialises this, because it shares the kind).
template <class T>
T* as(NSObject* object) {
  if constexpr (requires { T::staticKind; }) {
    return object && object->kind() == T::staticKind ? static_cast<T*>(object) : nullptr;
  } else {
    return dynamic_cast<T*>(object);
  }
}
template <class T>
const T* as(const NSObject* object) {
  return as<T>(const_cast<NSObject*>(object));
}
template <class T, class From>
std::shared_ptr<T> as(const std::shared_ptr<From>& object) {
  T* cast = as<T>(static_cast<NSObject*>(object.get()));
  return cast ? std::shared_ptr<T>(object, cast) : nullptr;
}

/// Two references are equal when both are empty or their objects are equal.
inline bool isEqual(const id& left, const id& right) {
  return left == right || (left && right && left->isEqual(*right));
}
