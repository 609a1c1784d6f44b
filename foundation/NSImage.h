#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/NSError.h"
#include "foundation/NSObject.h"
#include "foundation/NSURL.h"

/// A decoded picture, immutable. Decoding blocks the calling thread. Any thread.
class NSImage final : public NSObject {
 public:
  /// The picture `name` (without extension) of the loaded bundles' resources, cached for the process's life;
  /// or nothing.
  static std::shared_ptr<NSImage> imageNamed(const std::string& name);
  /// The expected file format. Only its decoder is used: the bytes are untrusted, and some of the library's
  /// dozen decoders are little tested.
  enum class Format { jpeg, png };
  /// Reads the file now; nothing if it is not a picture of that format, or declares more than 4 million
  /// pixels (more than any icon or preview has).
  static std::shared_ptr<NSImage> initWithContentsOfURL(const NSURL& url, Format format);

  int width() const noexcept;   // pixels
  int height() const noexcept;  // pixels
  /// Writes the picture as PNG, replacing the file atomically.
  bool writePNG(const std::string& path, NSErrorRef* error = nullptr) const;

  struct Pixels;  // the decoder's representation
  explicit NSImage(std::shared_ptr<const Pixels> pixels);
  ~NSImage() override;

 private:
  const std::shared_ptr<const Pixels> pixels_;
};
