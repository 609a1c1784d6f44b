#include "standin/api/Thumbnails.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include <gdk-pixbuf/gdk-pixbuf.h>

#include "standin/store/NormalPath.h"

namespace kzv::standin {
namespace {

constexpr std::size_t kPieceBytes = 65536;
constexpr std::int64_t kMaxPixels = 60000000;

struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
using LoaderPtr = std::unique_ptr<GdkPixbufLoader, ObjectUnref>;
using PixbufPtr = std::unique_ptr<GdkPixbuf, ObjectUnref>;

/// Data of the loader's callback, which runs as soon as the picture's size is known.
struct Preparation {
  ThumbnailRequest request;
  bool isTooLarge = false;
};

void onSizePrepared(GdkPixbufLoader* loader, gint width, gint height, gpointer data) {
  auto& preparation = *static_cast<Preparation*>(data);
  preparation.isTooLarge = static_cast<std::int64_t>(width) * height > kMaxPixels;
  if (preparation.isTooLarge) {
    gdk_pixbuf_loader_set_size(loader, 0, 0);  // ends the decoding here
    return;
  }
  const PictureSize wanted = thumbnailSize({width, height}, preparation.request);
  gdk_pixbuf_loader_set_size(loader, wanted.width, wanted.height);
}

// Feeds the loader until the picture is complete or fails. @return null when there is no picture.
PixbufPtr decode(const BodyReader& body, Preparation& preparation) {
  const LoaderPtr loader(gdk_pixbuf_loader_new());
  g_signal_connect(loader.get(), "size-prepared", G_CALLBACK(onSizePrepared), &preparation);
  bool good = true;
  for (std::uint64_t offset = 0; good && !preparation.isTooLarge && offset < body.sizeBytes();
       offset += kPieceBytes) {
    const std::string piece = body.read(offset, kPieceBytes);
    good = gdk_pixbuf_loader_write(loader.get(), reinterpret_cast<const guchar*>(piece.data()), piece.size(),
                                   nullptr) != FALSE;
  }
  const bool closed = gdk_pixbuf_loader_close(loader.get(), nullptr) != FALSE;
  if (!good || !closed || preparation.isTooLarge) return nullptr;
  GdkPixbuf* picture = gdk_pixbuf_loader_get_pixbuf(loader.get());
  return PixbufPtr(picture ? GDK_PIXBUF(g_object_ref(picture)) : nullptr);
}

// JPEG has no transparency: transparent parts become white.
PixbufPtr flattened(PixbufPtr picture) {
  if (!gdk_pixbuf_get_has_alpha(picture.get())) return picture;
  const int width = gdk_pixbuf_get_width(picture.get());
  const int height = gdk_pixbuf_get_height(picture.get());
  return PixbufPtr(gdk_pixbuf_composite_color_simple(picture.get(), width, height, GDK_INTERP_NEAREST, 255,
                                                     16, 0xFFFFFF, 0xFFFFFF));
}

int scaled(int length, double factor) { return std::max(1, static_cast<int>(std::lround(length * factor))); }

}  // namespace

bool hasPictureName(std::string_view name) {
  constexpr std::array<std::string_view, 9> extensions{"jpg", "jpeg", "png", "tiff", "tif",
                                                       "gif", "webp", "ppm", "bmp"};
  const auto dot = name.rfind('.');
  if (dot == std::string_view::npos) return false;
  const std::string extension = lowerCased(name.substr(dot + 1));
  return std::find(extensions.begin(), extensions.end(), extension) != extensions.end();
}

PictureSize thumbnailSize(PictureSize original, const ThumbnailRequest& request) {
  if (request.mode == ThumbnailMode::original) return original;
  double boxWidth = request.width;
  double boxHeight = request.height;
  const bool isPortrait = original.height > original.width;
  if (request.mode == ThumbnailMode::bestFit && isPortrait) std::swap(boxWidth, boxHeight);
  const double byWidth = boxWidth / original.width;
  const double byHeight = boxHeight / original.height;
  const double fit = request.mode == ThumbnailMode::fitOneBestFit ? std::max(byWidth, byHeight)
                                                                  : std::min(byWidth, byHeight);
  const double factor = std::min(1.0, fit);
  return {scaled(original.width, factor), scaled(original.height, factor)};
}

std::optional<std::string> makeThumbnail(const BodyReader& body, const ThumbnailRequest& request,
                                         std::string& error) {
  Preparation preparation{request};
  PixbufPtr picture = decode(body, preparation);
  error = "unsupported_image";
  if (!picture) return std::nullopt;
  if (request.format == "jpeg") picture = flattened(std::move(picture));
  gchar* buffer = nullptr;
  gsize size = 0;
  error = "conversion_error";
  if (!picture ||
      !gdk_pixbuf_save_to_buffer(picture.get(), &buffer, &size, request.format.c_str(), nullptr, nullptr)) {
    return std::nullopt;
  }
  std::string bytes(buffer, size);
  g_free(buffer);
  return bytes;
}

}  // namespace kzv::standin
