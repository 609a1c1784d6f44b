#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kzv::standin {

enum class ApproveMode {
  page,  // a page with buttons
  automatic,
  deny,
};

struct ReadyAccount {
  std::string name;
  std::string email;
  std::string token;
};

/// The options of the command line.
struct ServiceOptions {
  std::string host = "127.0.0.1";
  int port = 0;
  /// Empty: state is temporary.
  std::filesystem::path dataFolder;
  bool seedSample = false;
  std::vector<ReadyAccount> accounts;
  ApproveMode approve = ApproveMode::page;
  bool admin = false;
  bool strict = false;
};

/// @param exitStatus  set when the program must exit (nothing is returned): 0 after --help, 2 for wrong
/// usage; the text has been printed.
std::optional<ServiceOptions> parseServiceOptions(int argc, const char* const* argv, int& exitStatus);

}  // namespace kzv::standin
