#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "service/Bodies.h"

namespace kzv::service {

enum class ThumbnailMode { strict, bestFit, fitOneBestFit, original };

struct ThumbnailRequest {
  int width = 64;
  int height = 64;
  ThumbnailMode mode = ThumbnailMode::strict;
  /// "jpeg", "png" or "webp".
  std::string format = "jpeg";
};

struct PictureSize {
  int width = 0;
  int height = 0;
};

/// Whether thumbnails are made for files of this name at all, by its extension.
bool hasPictureName(std::string_view name);

/// The size a picture gets: never larger than it is.
PictureSize thumbnailSize(PictureSize original, const ThumbnailRequest& request);

/// A smaller picture, decoded while it is read. Blocks while it computes; thread-safe.
/// @param error  the tag of the service's error: unsupported_image (no picture, damaged, or of a size that
/// only a
///   decompression bomb has) or conversion_error (the format cannot be written here).
std::optional<std::string> makeThumbnail(const BodyReader& body, const ThumbnailRequest& request,
                                         std::string& error);

/// Width and height from the head of a picture file; absent when it is none.
std::optional<PictureSize> readPictureSize(const BodyReader& body);

}  // namespace kzv::service
