#pragma once
#include <string>

#include "kzv/Verb.h"
#include "mount/journal/UploadJournal.h"

namespace kzv::cli {

/// What the commands say of mounts and of the files that wait to be sent. These block for the disk.

/// "1 file", "2 files".
std::string fileCount(std::size_t count);
/// Says on standard error how many files of the account wait and where; nothing when none does.
void noteWaiting(VerbContext& context, const kzv::mount::UploadJournal::State& state);
/// Says how many files have a damaged entry; nothing when none has.
void noteDamaged(VerbContext& context, const kzv::mount::UploadJournal::State& state);
/// Lists every account that is mounted or has files waiting: its folder, and each file with size, since when
/// and why. As JSON one object an account: "folder", "account", "mounted", "waiting", an array of {"path",
/// "size", "since", "reason", "file"}; "path" is missing where the entry is damaged, "reason" where no
/// attempt to send has failed.
void showMountStatus(VerbContext& context);

}  // namespace kzv::cli
