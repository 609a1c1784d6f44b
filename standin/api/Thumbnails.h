#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "standin/store/Bodies.h"

namespace kzv::standin {

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

/// Whether thumbnails are made for files with this name's extension.
bool hasPictureName(std::string_view name);

/// The size of the thumbnail: never larger than the picture.
PictureSize thumbnailSize(PictureSize original, const ThumbnailRequest& request);

/// A smaller picture, decoded while it is read. Blocks while it computes; thread-safe.
/// @param error  the tag of the service's error: unsupported_image (not a picture, damaged, or too large to
///   decode) or conversion_error (the format cannot be written here).
std::optional<std::string> makeThumbnail(const BodyReader& body, const ThumbnailRequest& request,
                                         std::string& error);

}  // namespace kzv::standin
