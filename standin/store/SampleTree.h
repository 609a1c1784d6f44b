#pragma once

#include "standin/ServiceState.h"

namespace kzv::standin {

/// The account that comes with `--seed sample`.
inline constexpr const char* kSampleName = "Sample User";
inline constexpr const char* kSampleEmail = "sample.user@example.com";

/// Creates the sample account with a small, varied tree, unless it exists. The tree is the same in every run:
/// documents, pictures with real image data, names with spaces, Unicode and mixed case, an empty file, an
/// empty folder and a folder of 1,200 files. Throws DatabaseError.
void seedSampleAccount(ServiceState& state);

}  // namespace kzv::standin
