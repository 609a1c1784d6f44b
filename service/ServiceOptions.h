#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kzv::service {

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

/// What the command line says.
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

/// @param exitStatus  written when there is nothing to run: 0 after --help, 2 for wrong usage; the text has
/// been printed.
std::optional<ServiceOptions> parseServiceOptions(int argc, const char* const* argv, int& exitStatus);

}  // namespace kzv::service
