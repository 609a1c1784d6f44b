#include "core/L.h"

#include <memory>

#include <glib.h>

#include "core/DLog.h"
#include "foundation/NSBundle.h"

namespace {

using KeyFile = std::unique_ptr<GKeyFile, void (*)(GKeyFile*)>;

/// The bundle's texts; empty when it has no readable Texts.ini.
KeyFile textsOf(const NSBundle& bundle) {
  KeyFile file(g_key_file_new(), g_key_file_unref);
  const std::string path = bundle.pathForResource("Texts.ini");
  GError* error = nullptr;
  if (!path.empty() && !g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, &error)) {
    DLogWarning(path + ": " + error->message, "L");
    g_error_free(error);
  }
  return file;
}

}  // namespace

std::string L(std::string_view key) {
  std::string name(key);
  for (const auto& bundle : NSBundle::loadedBundles()) {
    const KeyFile texts = textsOf(*bundle);
    const std::unique_ptr<gchar, void (*)(gpointer)> text(
        g_key_file_get_locale_string(texts.get(), "Texts", name.c_str(), nullptr, nullptr), g_free);
    if (text) return text.get();
  }
  return name;
}
