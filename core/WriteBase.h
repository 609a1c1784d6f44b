#pragma once
#include <cstdint>
#include <optional>
#include <string>

/// What a file that is written was made from, and thereby what it may replace.
struct WriteBase {
  enum class Kind {
    latestKnown,  // whatever version this process knows of now
    nothing,      // the file is new: one that is there is not to be replaced
    revision      // exactly the version `revision`
  };
  Kind kind = Kind::latestKnown;
  std::string revision;
};

/// Where a file that was written stands now, and as what.
struct StoredFile {
  std::string path;                          // not the path asked for when another version was there
  std::optional<std::string> revision;       // as revisionAtPath tells it
  std::optional<std::uint64_t> sizeBytes{};  // of what was stored; nothing: as the local file's size
};
