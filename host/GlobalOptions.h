#pragma once
#include <optional>
#include <string>

/// What stands before the verb.
struct GlobalOptions {
  std::optional<std::string> account;  // an id or a label
  bool json = false;
  bool quiet = false;
  bool verbose = false;
  std::string service;  // empty where not given; the layers below read these three from the environment
  std::string home;
  std::string appKey;
};
