#include "foundation/NSImage.h"

#include <map>
#include <mutex>
#include <string_view>

#include <gdk-pixbuf/gdk-pixbuf.h>

#include "foundation/NSBundle.h"
#include "foundation/NSFileManager.h"

namespace {

constexpr std::int64_t maxPixels = 4'000'000;
constexpr std::uint64_t maxFileBytes = 16'000'000;  // enough for maxPixels as uncompressed PNG

struct Release {
  void operator()(GdkPixbuf* pixbuf) const { g_object_unref(pixbuf); }
  void operator()(GdkPixbufLoader* loader) const { g_object_unref(loader); }
};

/// Called with the picture's declared size before memory is allocated for it.
void refuseHugePicture(GdkPixbufLoader* loader, int width, int height, gpointer refused) {
  if (static_cast<std::int64_t>(width) * height <= maxPixels) return;
  *static_cast<bool*>(refused) = true;
  gdk_pixbuf_loader_set_size(loader, 0, 0);  // makes the decoder stop
}

std::unique_ptr<GdkPixbuf, Release> decode(std::string_view bytes, NSImage::Format format) {
  // One at a time, to bound the memory that untrusted pictures can take.
  static auto& oneAtATime = *new std::mutex;
  const std::lock_guard lock(oneAtATime);
  bool isRefused = false;
  const char* name = format == NSImage::Format::jpeg ? "jpeg" : "png";
  const std::unique_ptr<GdkPixbufLoader, Release> loader(gdk_pixbuf_loader_new_with_type(name, nullptr));
  if (!loader) return nullptr;  // the library is installed without this decoder
  g_signal_connect(loader.get(), "size-prepared", G_CALLBACK(refuseHugePicture), &isRefused);
  const bool isWritten = gdk_pixbuf_loader_write(loader.get(), reinterpret_cast<const guchar*>(bytes.data()),
                                                 bytes.size(), nullptr) != 0;
  const bool isClosed = gdk_pixbuf_loader_close(loader.get(), nullptr) != 0;  // must be called either way
  GdkPixbuf* picture = gdk_pixbuf_loader_get_pixbuf(loader.get());
  if (!isWritten || !isClosed || isRefused || !picture) return nullptr;
  return std::unique_ptr<GdkPixbuf, Release>(GDK_PIXBUF(g_object_ref(picture)));
}

}  // namespace

struct NSImage::Pixels {
  std::unique_ptr<GdkPixbuf, Release> pixbuf;
};

NSImage::NSImage(std::shared_ptr<const Pixels> pixels) : pixels_(std::move(pixels)) {}
NSImage::~NSImage() = default;

std::shared_ptr<NSImage> NSImage::initWithContentsOfURL(const NSURL& url, Format format) {
  const auto bytes = readFile(url.path(), maxFileBytes);
  if (!bytes) return nullptr;
  auto pixels = std::make_shared<Pixels>();
  pixels->pixbuf = decode(*bytes, format);
  return pixels->pixbuf ? std::make_shared<NSImage>(std::move(pixels)) : nullptr;
}

std::shared_ptr<NSImage> NSImage::imageNamed(const std::string& name) {
  static auto& mutex = *new std::mutex;
  static auto& kept = *new std::map<std::string, std::shared_ptr<NSImage>>;
  const std::lock_guard lock(mutex);
  if (const auto found = kept.find(name); found != kept.end()) return found->second;
  for (const auto& bundle : NSBundle::loadedBundles()) {
    const auto url = NSURL::fileURLWithPath(bundle->pathForResource(name + ".png"));
    if (auto image = url ? initWithContentsOfURL(*url, Format::png) : nullptr)
      return kept[name] = std::move(image);
  }
  return nullptr;
}

int NSImage::width() const noexcept { return gdk_pixbuf_get_width(pixels_->pixbuf.get()); }
int NSImage::height() const noexcept { return gdk_pixbuf_get_height(pixels_->pixbuf.get()); }

bool NSImage::writePNG(const std::string& path, NSErrorRef* error) const {
  gchar* bytes = nullptr;
  gsize size = 0;
  GError* failure = nullptr;
  if (!gdk_pixbuf_save_to_buffer(pixels_->pixbuf.get(), &bytes, &size, "png", &failure, nullptr)) {
    setError(error, NSError::withText("NSImage", 1, failure->message));
    g_error_free(failure);
    return false;
  }
  const std::unique_ptr<gchar, void (*)(gpointer)> owned(bytes, g_free);
  return writeFileAtomically(path, {bytes, size}, 0644, error);
}
