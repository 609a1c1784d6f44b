#pragma once
#include <functional>
#include <string>

#include "foundation/Guarded.h"

/// The desktop around the program. Any thread.
class NSWorkspace {
 public:
  /// Gets an address, returns whether it could be handed over.
  using Opener = std::function<bool(const std::string& url)>;

  static NSWorkspace& sharedWorkspace();

  /// Shows the page to the person, by default in the desktop's browser. True says only that the address was
  /// handed over. Blocks for as long as the opener does.
  bool openURL(const std::string& url);
  /// Replaces what openURL does; an empty one puts the default back. It runs on the caller of openURL and may
  /// still be running there when this returns.
  void setOpener(Opener opener);
  /// The default: the program that the desktop has registered for such addresses, which is started as a
  /// process of its own. False when there is none, or when it could not be started; the reason is in the
  /// log.
  static bool openWithDesktop(const std::string& url);

 private:
  Guarded<Opener> opener_;
};
