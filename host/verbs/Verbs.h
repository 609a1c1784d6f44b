#pragma once
#include <memory>

#include "host/Verb.h"

// One maker per verb; the classes themselves are private to their files.
std::unique_ptr<Verb> makeAccountsVerb();
std::unique_ptr<Verb> makeLinkVerb();
std::unique_ptr<Verb> makeUnlinkVerb();
std::unique_ptr<Verb> makeLsVerb();
std::unique_ptr<Verb> makeStatVerb();
std::unique_ptr<Verb> makeGetVerb();
std::unique_ptr<Verb> makePutVerb();
std::unique_ptr<Verb> makeMkdirVerb();
std::unique_ptr<Verb> makeRmVerb();
std::unique_ptr<Verb> makeMvVerb();
std::unique_ptr<Verb> makeDfVerb();
std::unique_ptr<Verb> makeDesktopVerb();
std::unique_ptr<Verb> makeInfoVerb();
std::unique_ptr<Verb> makeShareVerb();
std::unique_ptr<Verb> makeIconVerb();
std::unique_ptr<Verb> makePreviewVerb();
std::unique_ptr<Verb> makeWatchVerb();
std::unique_ptr<Verb> makeShellVerb();
std::unique_ptr<Verb> makeMountVerb();
std::unique_ptr<Verb> makeUmountVerb();
