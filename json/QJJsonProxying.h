#pragma once
#include "foundation/NSObject.h"

/// An object that JSON has no form for, and that another value stands in for when it is written.
class QJJsonProxying {
 public:
  virtual ~QJJsonProxying() = default;
  /// The value to write instead: any that QJJsonWriter can write, also another such object. Called on the
  /// writing thread; must not throw.
  virtual id proxyForJson() const = 0;
};
