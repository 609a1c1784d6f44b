#include "foundation/NSWorkspace.h"

#include <memory>

#include <gio/gio.h>

#include "foundation/NSLog.h"

NSWorkspace& NSWorkspace::sharedWorkspace() {
  static auto& workspace = *new NSWorkspace;
  return workspace;
}

bool NSWorkspace::openURL(const std::string& url) {
  const Opener opener = opener_.get();
  return opener ? opener(url) : openWithDesktop(url);
}

void NSWorkspace::setOpener(Opener opener) { opener_.set(std::move(opener)); }

bool NSWorkspace::openWithDesktop(const std::string& url) {
  GError* failure = nullptr;
  if (g_app_info_launch_default_for_uri(url.c_str(), nullptr, &failure)) return true;
  const std::unique_ptr<GError, decltype(&g_error_free)> owned(failure, &g_error_free);
  // Without the address, which may carry secrets.
  NSLog(NSLogLevel::info, "openURL", owned ? owned->message : "no reason");
  return false;
}
