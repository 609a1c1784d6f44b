#pragma once
#include <map>
#include <string>
#include <vector>

namespace kzv::cli {

/// The kind of an argument, by its placeholder in the help text: PATH, REMOTE, FROM, TO; FOLDER; LOCAL, FILE,
/// DIR; ID, ID-OR-LABEL; VERB. Any other: other.
enum class ArgumentKind { other, remotePath, remoteFolder, localPath, account, verb, option };

/// The options and arguments of a verb.
struct VerbSyntax {
  std::string name;
  std::map<std::string, ArgumentKind> valueOptions;  // "--out" -> the kind of its value
  std::vector<std::string> flags;                    // options without a value
  std::vector<ArgumentKind> arguments;
  bool repeatsLast = false;  // the last argument may be repeated
};

}  // namespace kzv::cli
