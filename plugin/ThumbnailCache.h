#pragma once
#include <memory>
#include <string>
#include <unordered_map>

#include "foundation/NSObject.h"
#include "foundation/NSURL.h"

/// Downloaded preview pictures by path key (MetadataCache::keyOf). An entry is a marker that a thread is
/// fetching it (an empty text), or the picture's file URL. Any thread: each operation locks the object
/// (synced), but never during a request or a sleep.
class ThumbnailCache final : public NSObject {
 public:
  struct Claim {
    std::shared_ptr<NSURL> url;  // the picture, if it was fetched already
    bool isMine = false;         // the caller has set the marker and must store() or remove()
  };
  /// Blocks while the picture is being fetched, without a time limit; checks every 0.1 s. The picture, or
  /// else, if there is no entry, the right to fetch it.
  void waitWhileFetching(const std::string& key) const;
  Claim claim(const std::string& key);
  void store(const std::string& key, std::shared_ptr<NSURL> url);
  void remove(const std::string& key);

 private:
  std::unordered_map<std::string, id> entries_;  // guarded by synced(*this)
};
