#pragma once
#include <memory>
#include <string>
#include <unordered_map>

#include "foundation/NSObject.h"
#include "foundation/NSURL.h"

/// Preview pictures already fetched, by key of the path (MetadataCache::keyOf). An entry is absent, a marker
/// that somebody is fetching it (an empty text), or the file URL of the picture. Any thread: each operation
/// takes the object's own lock (synced), which is never held across a request or a sleep.
class ThumbnailCache final : public NSObject {
 public:
  struct Claim {
    std::shared_ptr<NSURL> url;  // there is a picture already
    bool isMine = false;         // the marker is in place: the caller must store or remove it
  };
  /// Blocks, looking again every 0.1 s, while the picture is being fetched. No time limit.
  void waitWhileFetching(const std::string& key) const;
  Claim claim(const std::string& key);
  void store(const std::string& key, std::shared_ptr<NSURL> url);
  void remove(const std::string& key);

 private:
  std::unordered_map<std::string, id> entries_;  // guarded by synced(*this)
};
