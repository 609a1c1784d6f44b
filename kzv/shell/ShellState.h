#pragma once
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kzv/Verb.h"

namespace kzv::cli {

/// The state of a shell between its lines. Belongs to the shell's thread.
struct ShellState {
  std::optional<std::string> accountId;        // the selected one
  std::map<std::string, std::string> folders;  // the current folder of each account, by id; "/" where absent
  bool isOver = false;                         // `exit` was typed

  // Of the current line:
  std::optional<std::string> lineAccountId;  // the account that it uses, if known
  const std::vector<std::unique_ptr<Verb>>* lineVerbs = nullptr;

  std::string currentFolder(const std::optional<std::string>& ofAccount) const {
    const auto found = ofAccount ? folders.find(*ofAccount) : folders.end();
    return found == folders.end() ? "/" : found->second;
  }
};

/// The commands that only a shell has: account, cd, pwd, lcd, lpwd, help, exit, quit. They keep `state`,
/// which must outlive them.
std::vector<std::unique_ptr<Verb>> shellOnlyVerbs(ShellState& state);

}  // namespace kzv::cli
