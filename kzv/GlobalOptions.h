#pragma once
#include <optional>
#include <string>

namespace kzv::cli {

/// The options of every verb; they may come before or after it.
struct GlobalOptions {
  std::optional<std::string> account;  // an id or a label
  bool json = false;
  bool quiet = false;
  bool verbose = false;
  std::string service;  // these three: empty if not given; the layers below read them from the environment
  std::string home;
  std::string appKey;
};

}  // namespace kzv::cli
