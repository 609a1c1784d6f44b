#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

std::vector<std::unique_ptr<Verb>> allVerbs() {
  std::vector<std::unique_ptr<Verb>> verbs;
#define KZV_MAKE_VERB(NAME) verbs.push_back(make##NAME##Verb());
  KZV_VERBS(KZV_MAKE_VERB)
#undef KZV_MAKE_VERB
  return verbs;
}

}  // namespace kzv::cli
