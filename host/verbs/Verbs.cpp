#include "host/verbs/Verbs.h"

std::vector<std::unique_ptr<Verb>> allVerbs() {
  std::vector<std::unique_ptr<Verb>> verbs;
  for (auto* make : {makeAccountsVerb, makeLinkVerb,    makeUnlinkVerb, makeLsVerb,    makeStatVerb,
                     makeGetVerb,      makePutVerb,     makeMkdirVerb,  makeRmVerb,    makeMvVerb,
                     makeDfVerb,       makeInfoVerb,    makeShareVerb,  makeIconVerb,  makePreviewVerb,
                     makeWatchVerb,    makeDesktopVerb, makeShellVerb,  makeMountVerb, makeUmountVerb})
    verbs.push_back(make());
  return verbs;
}
