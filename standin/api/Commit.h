#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "standin/api/ApiError.h"
#include "standin/api/Items.h"
#include "standin/api/Routes.h"

namespace kzv::standin {

/// A WriteError: the routes differ in how they wrap it.
class WriteRefused : public std::exception {
 public:
  explicit WriteRefused(Tags tags) : tags_(std::move(tags)) {}
  const char* what() const noexcept override { return "write refused"; }
  /// {"conflict", "file"} and the like.
  const Tags& tags() const { return tags_; }

 private:
  Tags tags_;
};

enum class WriteMode { add, overwrite, update };

/// Where and how to store a file.
struct CommitArg {
  std::string path;
  WriteMode mode = WriteMode::add;
  /// With WriteMode::update.
  std::string rev;
  bool autorename = false;
  bool strictConflict = false;
  std::optional<std::int64_t> clientModified;
};

/// Reads the fields; the caller calls done(). Throws BadArgument.
CommitArg decodeCommitArg(const ArgReader& reader);

/// Bytes to be stored by a commit.
struct PendingContent {
  std::uint64_t sizeBytes = 0;
  /// 32 raw bytes.
  std::string hash;
  /// Stores them as part of the commit; called at most once, after all checks.
  std::function<std::int64_t(Store::Writer&)> store;
};

/// The target of a write: the path and its root.
struct Target {
  PathRoot root;
  NormalPath path;
};

/// The target that `text` names; its name is valid. Throws WriteRefused.
Target resolveTarget(const Call& call, const Tree& tree, const std::string& text);
/// The parent folder, created if missing. Throws WriteRefused conflict/file_ancestor.
Folder parentFolder(TreeEditor& editor, const NormalPath& path);
/// `path`, or with `autorename` the first free one beside it. Throws WriteRefused conflict/file or
/// conflict/folder.
/// @param suffix  returns the suffix for the Nth attempt, from 1 on.
NormalPath freePath(const Tree& tree, const NormalPath& path, bool autorename, bool isFolder,
                    const std::function<std::string(int)>& suffix);
/// " (1)", " (2)", ...
std::string numberSuffix(int number);

/// Stores a file by the rules of modes and conflicts. @return FileMetadata as JSON, without `.tag`.
/// Throws WriteRefused, ApiError.
std::string commitFile(Call& call, const CommitArg& arg, const PendingContent& content);

}  // namespace kzv::standin
