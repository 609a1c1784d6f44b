#pragma once
#include <cstdint>
#include <optional>
#include <string>

/// The version that a written file is based on, which is the one it may replace.
struct WriteBase {
  enum class Kind {
    latestKnown,  // the latest version that this process knows
    nothing,      // the file is new: an existing one must not be replaced
    revision      // exactly the version `revision`
  };
  Kind kind = Kind::latestKnown;
  std::string revision;
};

/// Where and as which version a written file was stored.
struct StoredFile {
  std::string path;                          // not the requested path if another version was there
  std::optional<std::string> revision;       // as from revisionAtPath
  std::optional<std::uint64_t> sizeBytes{};  // what was stored; nothing: the local file's size
};
