#pragma once
#include <memory>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "kzv/shell/Completion.h"

namespace kzv::cli {

/// The names in a folder of `volume`, for completion: nothing when the volume does not answer within two
/// seconds or a signal comes (PromptSignals, which stays to be read); the answer then serves the volume's own
/// cache. Blocks; not on the main thread.
std::vector<CompletionName> namesInRemoteFolder(const std::shared_ptr<FSPlugin>& volume,
                                                const std::string& path);

/// The names in a folder of this computer; "" is the current one. Blocks for the disk.
std::vector<CompletionName> namesInLocalFolder(const std::string& path);

}  // namespace kzv::cli
