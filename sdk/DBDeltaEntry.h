#pragma once
#include <memory>
#include <string>

#include "sdk/DBMetadata.h"

/// One change of the account's tree.
struct DBDeltaEntry {
  std::string lowercasePath;                   // the service's key; empty: the root
  std::shared_ptr<const DBMetadata> metadata;  // null: the item and everything below it was deleted
};
