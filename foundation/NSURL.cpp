#include "foundation/NSURL.h"

#include <memory>

#include <glib.h>

namespace {

std::string taken(gchar* text) {
  const std::unique_ptr<gchar, void (*)(gpointer)> owned(text, g_free);
  return text ? text : "";
}

}  // namespace

std::shared_ptr<NSURL> NSURL::fileURLWithPath(std::string_view path) {
  if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) return nullptr;
  return std::make_shared<NSURL>(taken(g_filename_to_uri(std::string(path).c_str(), nullptr, nullptr)));
}

std::string NSURL::path() const {
  const std::string withoutQuery = text_.substr(0, text_.find_first_of("?#"));
  return taken(g_filename_from_uri(withoutQuery.c_str(), nullptr, nullptr));
}
