#pragma once
#include "foundation/NSError.h"

/// Passed to the file manager in place of the caller's error pointer. The destructor translates what was
/// stored to FSErrorDomain and hands it to the caller. The only place where the service's errors are
/// translated. Stops by the user, errors of the local disk and the plug-in's own errors are passed on
/// unchanged.
class ServiceErrors {
 public:
  /// An upload makes the folders it needs, so "not found" can only mean its upload session: the transfer has
  /// to start again.
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
