#pragma once
#include <string>

#include "kzv/Verb.h"
#include "mount/journal/UploadJournal.h"

namespace kzv::cli {

/// What the commands print about mounts and pending uploads. These block for the disk.

/// "1 file", "2 files".
std::string fileCount(std::size_t count);
/// Prints on standard error how many uploads of the account are pending and where their files are, if any.
void notePending(VerbContext& context, const kzv::mount::UploadJournal::State& state);
/// Prints how many files have a damaged journal entry, if any.
void noteDamaged(VerbContext& context, const kzv::mount::UploadJournal::State& state);
/// Lists every account that is mounted or has pending uploads: its folder, and each file with size, since
/// when and why. As JSON, one object per account: "folder", "account", "mounted", "waiting", an array of
/// {"path", "size", "since", "reason", "file"}; "path" is missing if the entry is damaged, "reason" if no
/// attempt has failed.
void showMountStatus(VerbContext& context);

}  // namespace kzv::cli
