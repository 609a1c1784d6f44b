#pragma once
#include <memory>

#include "kzv/Verb.h"

/// Every verb, in the order of the help text. Each NAME has a function makeNAMEVerb(); the class itself is
/// private to its file.
// clang-format off
#define KZV_VERBS(X) \
  X(Accounts) X(Link) X(Unlink) X(Ls) X(Stat) X(Get) X(Put) X(Mkdir) X(Rm) X(Mv) X(Df) X(Info) \
  X(Share) X(Icon) X(Preview) X(Watch) X(Desktop) X(Shell) X(Mount) X(Umount)
// clang-format on

namespace kzv::cli {

#define KZV_DECLARE_VERB(NAME) std::unique_ptr<Verb> make##NAME##Verb();
KZV_VERBS(KZV_DECLARE_VERB)
#undef KZV_DECLARE_VERB

}  // namespace kzv::cli
