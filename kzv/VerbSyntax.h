#pragma once
#include <map>
#include <string>
#include <vector>

namespace kzv::cli {

/// What an argument names, as the word for it in the help text tells: PATH, REMOTE, FROM, TO; FOLDER; LOCAL,
/// FILE, DIR; ID, ID-OR-LABEL; VERB. Other words: other.
enum class ArgumentKind { other, remotePath, remoteFolder, localPath, account, verb, option };

/// What a verb takes on its command line.
struct VerbSyntax {
  std::string name;
  std::map<std::string, ArgumentKind> valueOptions;  // "--out" -> what follows it
  std::vector<std::string> flags;                    // options that nothing follows
  std::vector<ArgumentKind> arguments;
  bool repeatsLast = false;  // of the arguments
};

}  // namespace kzv::cli
