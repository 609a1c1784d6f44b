#pragma once
#include "foundation/NSError.h"

/// Stands where an operation of the plug-in hands on its caller's error holder: what the file manager stores
/// in it reaches the caller in FSErrorDomain, when this ends. The only place where the service's errors are
/// translated. Stops by the user, errors of the local disk and those that the plug-in makes itself pass as
/// they are.
class ServiceErrors {
 public:
  /// An upload makes the folders it needs, so that "not found" is said of an upload session, and means that
  /// the transfer has to begin anew.
  enum class Operation { upload, other };

  /// @param host  the caller's holder; may be null. Untouched when nothing failed.
  explicit ServiceErrors(NSErrorRef* host, Operation operation = Operation::other)
      : host_(host), operation_(operation) {}
  ServiceErrors(const ServiceErrors&) = delete;
  ServiceErrors& operator=(const ServiceErrors&) = delete;
  ~ServiceErrors();

  /// The holder for the file manager.
  operator NSErrorRef*() noexcept { return &reason_; }  // NOLINT(google-explicit-constructor): stands for it

 private:
  NSErrorRef* const host_;
  const Operation operation_;
  NSErrorRef reason_;
};
