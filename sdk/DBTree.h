#pragma once
#include <memory>
#include <utility>
#include <vector>

#include "foundation/NSObject.h"
#include "sdk/DBMetadata.h"

/// The listings of a folder and of every folder below it. Immutable, so any thread may read it without a
/// lock.
class DBTree final : public NSObject {
 public:
  using Folders = std::vector<std::shared_ptr<const DBMetadata>>;
  explicit DBTree(Folders folders) : folders_(std::move(folders)) {}

  /// The records of the folders with their contents, parents before their children; never empty.
  const Folders& folders() const noexcept { return folders_; }

 private:
  const Folders folders_;
};
