#pragma once
#include "foundation/NSObject.h"

/// An object that JSON cannot represent and that supplies another value to be written in its place.
class QJJsonProxying {
 public:
  virtual ~QJJsonProxying() = default;
  /// The value to write instead: any that QJJsonWriter can write, also another such object. Called on the
  /// writing thread; must not throw.
  virtual id proxyForJson() const = 0;
};
