#include "standin/store/SampleTree.h"

#include <array>
#include <memory>

#include <fmt/format.h>
#include <gdk-pixbuf/gdk-pixbuf.h>

#include "standin/Encoding.h"
#include "standin/Invariant.h"
#include "standin/store/FileWriter.h"

namespace kzv::standin {
namespace {

constexpr int kNumberedFiles = 1200;

struct SampleFile {
  const char* path;
  const char* text;
  const char* modified;
};

constexpr std::array<SampleFile, 14> kTexts{{
    {"/Getting Started.txt",
     "Welcome to the sample account.\n\nEverything here can be read, changed and deleted.\n",
     "2024-01-15T08:00:00Z"},
    {"/Documents/Meeting notes 2024-03-12.md",
     "# Meeting\n\n- agreed on the new file layout\n- next date: 26 March\n", "2024-03-12T15:42:10Z"},
    {"/Documents/Budget 2024.csv",
     "month,income,expenses\nJanuary,3200,2875\nFebruary,3200,2640\nMarch,3350,2990\n",
     "2024-04-02T19:20:31Z"},
    {"/Documents/Letters/Letter to the landlord.txt",
     "Dear Mr. Brown,\n\nthe heating in the hall makes noises again.\n\nKind regards\n",
     "2023-11-28T07:15:00Z"},
    {"/Documents/Letters/\xC3\x9C"
     "bergabe-Protokoll (Entwurf).txt",
     "Schl\xC3\xBCssel: 3\nZ\xC3\xA4hlerstand: 48211\n", "2023-12-03T16:00:05Z"},
    {"/Documents/R\xC3\xA9sum\xC3\xA9.html",
     "<!DOCTYPE html>\n<html><body><h1>R&eacute;sum&eacute;</h1><p>Ten years of files.</p></body></html>\n",
     "2024-02-20T10:11:12Z"},
    {"/Projects/MixedCase/ReadMe.TXT", "Names keep their case, but are found in any.\n",
     "2024-05-01T09:30:00Z"},
    {"/Projects/MixedCase/src/main.cpp", "#include <cstdio>\n\nint main() { std::puts(\"hello\"); }\n",
     "2024-05-01T09:31:00Z"},
    {"/Projects/MixedCase/src/Makefile", "main: main.cpp\n\tc++ -o main main.cpp\n", "2024-05-01T09:32:00Z"},
    {"/Projects/empty file.dat", "", "2024-05-02T00:00:00Z"},
    {"/Unicode/\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E.txt",
     "\xE3\x81\x93\xE3\x82\x93\xE3\x81\xAB\xE3\x81\xA1\xE3\x81\xAF\n", "2024-05-03T03:00:00Z"},
    {"/Unicode/\xCE\x95\xCE\xBB\xCE\xBB\xCE\xB7\xCE\xBD\xCE\xB9\xCE\xBA\xCE\xAC \xCF\x82.txt",
     "\xCE\x93\xCE\xB5\xCE\xB9\xCE\xB1\n", "2024-05-03T03:01:00Z"},
    {"/Unicode/\xF0\x9F\x8C\xBB sunflower.txt", "A name with a character beyond U+FFFF.\n",
     "2024-05-03T03:02:00Z"},
    {"/Unicode/percent %41 & plus + hash #.txt", "A name that must be escaped with care.\n",
     "2024-05-03T03:03:00Z"},
}};

struct SamplePicture {
  const char* path;
  const char* type;  // as gdk-pixbuf names it
  int width;
  int height;
  const char* modified;
};

constexpr std::array<SamplePicture, 4> kPictures{{
    {"/Photos/Lake in the evening.jpg", "jpeg", 1600, 1200, "2023-08-19T18:44:51Z"},
    {"/Photos/2023/IMG_0042.JPG", "jpeg", 3000, 2000, "2023-07-02T12:00:00Z"},
    {"/Photos/2023/portrait.jpeg", "jpeg", 600, 900, "2023-07-02T12:05:00Z"},
    {"/Photos/Screenshot 1.png", "png", 800, 500, "2024-04-30T21:09:08Z"},
}};

struct PixbufUnref {
  void operator()(GdkPixbuf* pixbuf) const { g_object_unref(pixbuf); }
};

guchar channel(int value) { return static_cast<guchar>(value < 0 ? 0 : (value > 255 ? 255 : value)); }

// A sky over hills: smooth enough to compress, but with recognizable orientation.
void paint(GdkPixbuf* pixbuf, int width, int height) {
  guchar* pixels = gdk_pixbuf_get_pixels(pixbuf);
  const int stride = gdk_pixbuf_get_rowstride(pixbuf);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      guchar* pixel = pixels + static_cast<std::ptrdiff_t>(y) * stride + static_cast<std::ptrdiff_t>(x) * 3;
      const int horizon =
          height / 2 +
          (height / 8) * (((x * 4 / width) % 2) ? (x * 4 % width) : width - (x * 4 % width)) / width;
      const bool isSky = y < horizon;
      pixel[0] = channel(isSky ? 250 - y * 160 / height : 30 + x * 60 / width);
      pixel[1] = channel(isSky ? 140 + y * 60 / height : 90 + (y - horizon) * 80 / height);
      pixel[2] = channel(isSky ? 90 + y * 200 / height : 40);
    }
  }
}

std::string pictureBytes(const SamplePicture& picture) {
  const std::unique_ptr<GdkPixbuf, PixbufUnref> pixbuf(
      gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, picture.width, picture.height));
  requireInvariant(pixbuf != nullptr, "there must be memory for a sample picture");
  paint(pixbuf.get(), picture.width, picture.height);
  gchar* buffer = nullptr;
  gsize size = 0;
  GError* problem = nullptr;
  if (!gdk_pixbuf_save_to_buffer(pixbuf.get(), &buffer, &size, picture.type, &problem, nullptr)) {
    const std::string reason = problem ? problem->message : "unknown reason";
    g_clear_error(&problem);
    throw DatabaseError("cannot make a sample picture: " + reason);
  }
  std::string bytes(buffer, size);
  g_free(buffer);
  return bytes;
}

NormalPath samplePath(std::string_view text) {
  NormalPath path;
  requireInvariant(normalisePath(text, {}, path) == PathVerdict::ok, "sample paths must be well formed");
  return path;
}

void writeSample(Store::Writer& writer, std::int64_t tree, std::string_view path, std::string_view bytes,
                 std::string_view modified) {
  const bool written = writeText(writer, tree, samplePath(path), bytes, parseIsoTime(modified).value_or(0));
  requireInvariant(written, "sample paths must not conflict");
}

}  // namespace

void seedSampleAccount(ServiceState& state) {
  bool isNew = false;
  const Account account = state.accounts.findOrAdd(kSampleName, kSampleEmail, &isNew);
  if (!isNew) return;
  Store::Writer writer(state.store);
  for (const auto& file : kTexts) writeSample(writer, account.tree, file.path, file.text, file.modified);
  for (const auto& picture : kPictures) {
    writeSample(writer, account.tree, picture.path, pictureBytes(picture), picture.modified);
  }
  TreeEditor(writer, account.tree).ensureFolder(samplePath("/Empty folder"));
  for (int i = 1; i <= kNumberedFiles; ++i) {
    writeSample(writer, account.tree, fmt::format("/Many files/Item {:04}.txt", i),
                fmt::format("This is item {} of {}.\n", i, kNumberedFiles), "2024-01-01T12:00:00Z");
  }
  writer.commit();
}

}  // namespace kzv::standin
