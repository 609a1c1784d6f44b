#pragma once
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>

class NSObject;

/// A counted reference to any object; may be empty. Counting is thread-safe, the object itself only as its
/// class says; value classes (strings, numbers, dates, arrays, dictionaries, errors) are immutable.
using id = std::shared_ptr<NSObject>;

/// What a value object is, so that a walk over dynamic data costs a virtual call and not a dynamic_cast.
enum class NSKind : unsigned char { object, string, number, null, date, url, array, dictionary, error };

/// Root class of options, results, attribute dictionaries, notifications and locks. Supporting locks and
/// associated values costs an object that uses neither one pointer.
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
  /// Text for logs and messages; value classes give their value. Never holds a secret.
  virtual std::string description() const;
  virtual NSKind kind() const noexcept { return NSKind::object; }

 private:
  friend class ObjectExtension;
  mutable std::atomic<class ObjectExtension*> extension_{nullptr};
};

/// The object as a T, or null when it is something else. Constant time for value classes (those with a
/// staticKind; a class derived from one of them specialises this, because it shares the kind).
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

/// Two references are equal when both are empty or the objects are.
inline bool isEqual(const id& left, const id& right) {
  return left == right || (left && right && left->isEqual(*right));
}
