#pragma once
#include "foundation/NSError.h"

/// Passed to the file manager in place of the caller's error pointer. The destructor translates a stored
/// service error to FSErrorDomain and stores it for the caller. The only place where the service's errors are
/// translated; stops by the user, disk errors and the plug-in's own errors are passed on unchanged. Used on
/// one thread.
class ServiceErrors {
 public:
  /// An upload creates missing folders, so "not found" means its upload session: the transfer must be
  /// restarted.
  enum class Operation { upload, other };

  /// @param host  the caller's error pointer; may be null. Untouched when nothing failed.
  explicit ServiceErrors(NSErrorRef* host, Operation operation = Operation::other)
      : host_(host), operation_(operation) {}
  ServiceErrors(const ServiceErrors&) = delete;
  ServiceErrors& operator=(const ServiceErrors&) = delete;
  ~ServiceErrors();

  /// The error pointer for the file manager.
  operator NSErrorRef*() noexcept { return &reason_; }  // NOLINT(google-explicit-constructor): stands for it

 private:
  NSErrorRef* const host_;
  const Operation operation_;
  NSErrorRef reason_;
};
