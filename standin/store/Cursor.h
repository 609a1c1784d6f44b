#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kzv::standin {

enum class CursorPhase : std::uint8_t { listing = 1, deletedListing = 2, changes = 3 };

/// The contents of a listing's cursor. The text form is signed, so that clients cannot forge one.
struct Cursor {
  std::int64_t account = 0;
  std::int64_t namespaceId = 0;
  /// Cursors of an earlier epoch are answered with `reset`.
  std::int64_t epoch = 0;
  CursorPhase phase = CursorPhase::changes;
  bool recursive = false;
  bool includeDeleted = false;
  /// Entries per page, 0 for the default.
  std::int64_t limit = 0;
  /// Id of the listed folder and its key in the tree.
  std::int64_t folderId = 0;
  std::string folderLower;
  /// Journal number up to which changes have been returned, or at which the listing began.
  std::int64_t seq = 0;
  /// The listing's position: the last entry returned.
  std::int64_t afterId = 0;
  std::string afterPath;
};

/// Encodes bytes as signed URL-safe text, for other kinds of cursors; valid only for the same `kind`.
std::string seal(std::string_view kind, std::string_view payload, std::string_view secret);
/// The inverse; false for a text that is not from seal() with this kind and secret.
bool unseal(std::string_view kind, std::string_view text, std::string_view secret, std::string& payload);

/// URL-safe text. @param secret  signs it.
std::string encodeCursor(const Cursor& cursor, std::string_view secret);

/// @return false for a text that is not a cursor of this service.
bool decodeCursor(std::string_view text, std::string_view secret, Cursor& cursor);

}  // namespace kzv::standin
