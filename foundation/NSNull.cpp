#include "foundation/NSNull.h"

const id& NSNull::null() {
  static const id& object = *new id(std::make_shared<NSNull>());
  return object;
}
