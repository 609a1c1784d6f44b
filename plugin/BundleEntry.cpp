#include "plugin/KZVDropboxFSClass.h"

extern "C" __attribute__((visibility("default"))) FSPluginClass* kzvBundlePrincipalClass() {
  return &KZVDropboxFSClass::shared();
}
