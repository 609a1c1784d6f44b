#include "foundation/NSNull.h"

#include "foundation/Immortal.h"

const id& NSNull::null() {
  static const id& object = *new id(immortal(*new NSNull()));
  return object;
}
