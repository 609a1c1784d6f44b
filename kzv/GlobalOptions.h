#pragma once
#include <optional>
#include <string>

namespace kzv::cli {

/// The options of every verb; they may stand before or behind it.
struct GlobalOptions {
  std::optional<std::string> account;  // an id or a label
  bool json = false;
  bool quiet = false;
  bool verbose = false;
  std::string service;  // empty where not given; the layers below read these three from the environment
  std::string home;
  std::string appKey;
};

}  // namespace kzv::cli
