#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/NSError.h"
#include "foundation/NSObject.h"
#include "foundation/NSURL.h"

/// A decoded picture. Decoding blocks its caller's thread; an image never changes afterwards. Any thread.
class NSImage final : public NSObject {
 public:
  /// The picture `name` (without extension) of the loaded bundles' resources, kept for the next caller; or
  /// nothing.
  static std::shared_ptr<NSImage> imageNamed(const std::string& name);
  /// The one form that a file is expected in. Its decoder alone sees the bytes: they may come from outside,
  /// and of the dozen decoders that the library brings some are little used and little tested.
  enum class Format { jpeg, png };
  /// Reads the file now; nothing for what is no picture of that form, or claims more than 4 million pixels
  /// (more than any icon or preview has).
  static std::shared_ptr<NSImage> initWithContentsOfURL(const NSURL& url, Format format);

  int width() const noexcept;   // pixels
  int height() const noexcept;  // pixels
  /// Writes the picture as PNG, replacing the file at once or not at all.
  bool writePNG(const std::string& path, NSErrorRef* error = nullptr) const;

  struct Pixels;  // the decoder's own form
  explicit NSImage(std::shared_ptr<const Pixels> pixels);
  ~NSImage() override;

 private:
  const std::shared_ptr<const Pixels> pixels_;
};
