#pragma once
#include <string>
#include <string_view>

/// What a mounted volume makes of names. Any thread, none blocks.

enum class NameKind {
  remote,      // an item of the account
  localOnly,   // a lock or swap file that a program leaves beside its document: it stays on this machine
  tooLong,     // more than the service keeps
  notAllowed,  // no service name: control characters, a backslash, a space at the end, no UTF-8
};
NameKind kindOfName(std::string_view name);

/// Two names of one folder mean the same item when their keys are equal: lower case, composed.
std::string keyOfName(std::string_view name);

/// The name under which what a rename replaces waits until the rename is done; not longer than the service
/// keeps.
std::string setAsideName(std::string_view name, std::string_view unique);
