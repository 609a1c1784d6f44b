#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "service/JsonText.h"
#include "service/Routes.h"
#include "service/Tree.h"

namespace kzv::service {

/// Writes items as the API shows them, with paths relative to one root. Used by one thread.
class ItemWriter {
 public:
  ItemWriter(const ServiceState& state, PathRoot root);

  /// @param withTag  where the declared type is the parent of file and folder.
  void write(JsonText& json, const EntryView& entry, bool withTag) const;
  /// The fields alone, inside an object that is open already.
  void writeFields(JsonText& json, const EntryView& entry) const;
  void writeDeleted(JsonText& json, const TombstoneView& item) const;
  std::string json(const Entry& entry, bool withTag) const;
  /// True for the folder that is this root: it has no name in it and is never shown.
  bool isRoot(const EntryView& entry) const { return entry.lower.size() <= root_.base.lower.size(); }

  std::string shownDisplay(std::string_view lower, std::string_view display) const;
  const PathRoot& root() const { return root_; }

 private:
  const ServiceState& state_;
  PathRoot root_;
  bool lowerCaseParents_;
};

/// An item named by a request.
struct Located {
  PathRoot root;
  /// Key and display form in the tree.
  NormalPath path;
  std::optional<Entry> entry;
};

/// Finds what a path argument of any form names: "/a/b", "id:X", "id:X/rel", "rev:R", "ns:N/rel".
/// Throws ApiError `tag`/malformed_path; `tag`/not_found for an id, rev or namespace that is unknown.
Located locate(const Call& call, const Tree& tree, const std::string& text, std::string_view tag);
/// The same, and throws ApiError `tag`/not_found when nothing is there.
Entry locateExisting(const Call& call, const Tree& tree, const std::string& text, std::string_view tag);

}  // namespace kzv::service
