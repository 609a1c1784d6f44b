#pragma once
#include <memory>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "kzv/shell/Completion.h"

namespace kzv::cli {

/// The names in a folder of `volume`, for completion: empty when the volume does not answer within 2 s or a
/// signal arrives (which PromptSignals::take still returns). A late answer still fills the volume's cache.
/// Blocks; not on the main thread.
std::vector<CompletionName> namesInRemoteFolder(const std::shared_ptr<FSPlugin>& volume,
                                                const std::string& path);

/// The names in a folder of this computer; "" is the current one. Blocks for the disk.
std::vector<CompletionName> namesInLocalFolder(const std::string& path);

}  // namespace kzv::cli
