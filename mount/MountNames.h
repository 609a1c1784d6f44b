#pragma once
#include <string>
#include <string_view>

#include "core/FSPlugin.h"

namespace kzv::mount {

/// How a mount treats names. Any thread; none of these blocks.

enum class NameKind {
  remote,      // an item of the volume
  localOnly,   // a file that stays on this machine
  tooLong,     // longer than the volume allows
  notAllowed,  // not a name for the volume
};
/// Local are the names that the volume reserves for system and temporary files, and those of the files that
/// editors keep beside a document only while it is open: ".NAME.swp" (swo, swn, swx, swpx) of Vim,
/// ".NAME.kate-swp" of Kate, ".goutputstream-..." of GNOME. Sending them would cost an upload for each save
/// and show other devices files that mean nothing there.
NameKind kindOfName(const FSPlugin& volume, std::string_view name);

/// Why an item cannot have such a name; 0 when it can.
int errnoOf(NameKind kind);

/// The name under which an item that a rename replaces is kept until the rename is done: `name` with
/// `unique`, shortened to what the volume allows.
std::string asideName(const FSPlugin& volume, std::string_view name, std::string_view unique);

/// The name under which another device's version of the file is kept: "name (conflicted copy UNIQUE).ext", or
/// asideName() where that is too long.
std::string conflictName(const FSPlugin& volume, const std::string& name, std::string_view unique);

}  // namespace kzv::mount
