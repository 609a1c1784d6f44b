#pragma once
#include <string>
#include <string_view>

#include "core/FSPlugin.h"

namespace kzv::mount {

/// How a mount treats a name. All functions here: any thread; they do not block.

enum class NameKind {
  remote,      // an item of the volume
  localOnly,   // a file that stays on this machine
  tooLong,     // longer than the volume allows
  notAllowed,  // not allowed on the volume
};
/// Local only are names that the volume reserves for system and temporary files, and files that editors keep
/// beside a document while it is open: ".NAME.swp" (swo, swn, swx, swpx) of Vim, ".NAME.kate-swp" of Kate,
/// ".goutputstream-..." of GNOME. Uploading them would cost a request for each save and show other devices
/// files of no use there.
NameKind kindOfName(const FSPlugin& volume, std::string_view name);

/// The errno value for creating an item with such a name; 0 when that is possible.
int errnoOf(NameKind kind);

/// The name under which an item that a rename replaces is kept until the rename is done: `name` with
/// `unique`, shortened to what the volume allows.
std::string asideName(const FSPlugin& volume, std::string_view name, std::string_view unique);

/// The name under which another device's version of the file is kept: "name (conflicted copy UNIQUE).ext", or
/// asideName() where that is too long.
std::string conflictName(const FSPlugin& volume, const std::string& name, std::string_view unique);

}  // namespace kzv::mount
