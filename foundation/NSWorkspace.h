#pragma once
#include <functional>
#include <string>

#include "foundation/Guarded.h"

/// The user's desktop session. Any thread.
class NSWorkspace {
 public:
  /// Opens an address; returns whether it was handed over.
  using Opener = std::function<bool(const std::string& url)>;

  static NSWorkspace& sharedWorkspace();

  /// Shows a page to the user, by default in the desktop's browser. True means only that the address was
  /// handed over. Blocks for as long as the opener does.
  bool openURL(const std::string& url);
  /// Replaces the opener; an empty one restores the default. It runs on openURL's calling thread and may
  /// still be running there when this returns.
  void setOpener(Opener opener);
  /// The default opener: starts the program that the desktop has registered for the URL's scheme. False when
  /// there is none or it could not be started; the reason is logged.
  static bool openWithDesktop(const std::string& url);

 private:
  Guarded<Opener> opener_;
};
