#pragma once
#include <string>
#include <string_view>

#include "core/FSPlugin.h"

/// What a mount makes of names. Any thread, none blocks.

enum class NameKind {
  remote,      // an item of the volume
  localOnly,   // a file that stays on this machine
  tooLong,     // more than the volume keeps
  notAllowed,  // no name for the volume
};
/// Local are the names that the volume reserves for system and temporary files, and those of the files that
/// editors keep beside a document only while it is open: ".NAME.swp" (swo, swn, swx, swpx) of Vim,
/// ".NAME.kate-swp" of Kate, ".goutputstream-…" of GNOME. Sending them would cost an upload for each save and
/// show other devices files that mean nothing there.
NameKind kindOfName(const FSPlugin& volume, std::string_view name);

/// The name under which an item that a rename replaces is kept until the rename is done: `name` with
/// `unique`, shortened to what the volume keeps.
std::string setAsideName(const FSPlugin& volume, std::string_view name, std::string_view unique);
