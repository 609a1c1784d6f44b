#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "standin/api/JsonWriter.h"
#include "standin/api/Routes.h"
#include "standin/store/Tree.h"

namespace kzv::standin {

/// Writes items as JSON metadata, with paths relative to one root. One thread at a time.
class ItemWriter {
 public:
  ItemWriter(const ServiceState& state, PathRoot root);

  /// @param withTag  if the declared type is the common base of file and folder.
  void write(JsonWriter& json, const EntryView& entry, bool withTag) const;
  /// Only the fields, into the open object.
  void writeFields(JsonWriter& json, const EntryView& entry) const;
  void writeDeleted(JsonWriter& json, const TombstoneView& item) const;
  std::string json(const Entry& entry, bool withTag) const;
  /// Whether the entry is this root, which has no name and is never shown.
  bool isRoot(const EntryView& entry) const { return entry.lower.size() <= root_.base.lower.size(); }

  std::string shownDisplay(std::string_view lower, std::string_view display) const;
  const PathRoot& root() const { return root_; }

 private:
  const ServiceState& state_;
  PathRoot root_;
  bool lowerCaseParents_;
};

/// The item that a request's path argument names.
struct Located {
  PathRoot root;
  /// Key and display form in the tree.
  NormalPath path;
  std::optional<Entry> entry;
};

/// Finds what a path argument of any form names: "/a/b", "id:X", "id:X/rel", "rev:R", "ns:N/rel".
/// Throws ApiError `tag`/malformed_path; `tag`/not_found for an id, rev or namespace that is unknown.
Located locate(const Call& call, const Tree& tree, const std::string& text, std::string_view tag);
/// The same for an item that exists now: throws ApiError `tag`/not_found for a path without an item and for a
/// revision of a deleted file.
Entry locateExisting(const Call& call, const Tree& tree, const std::string& text, std::string_view tag);

}  // namespace kzv::standin
