#pragma once
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kzv/shell/Completion.h"

namespace kzv::cli {

/// Reads lines from a person at the terminal (standard input and standard error), with editing, history and
/// completion by Tab. The terminal is in its usual state whenever readLine does not run. One at a time;
/// belongs to the thread that makes it.
class LineEditor {
 public:
  using Completer = std::function<std::optional<Completion>(const std::string& lineToCursor)>;
  enum class Result {
    line,
    interrupted,  // Ctrl-C: the line is given up
    endOfInput,   // Ctrl-D on an empty line
    endRequested  // SIGTERM or SIGHUP
  };

  explicit LineEditor(Completer completer);
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;
  ~LineEditor();

  /// Blocks until a line (without its end) has been typed, or something else happens.
  Result readLine(const std::string& prompt, std::string& line);
  /// Adds a line to those that can be called back with the arrow keys and Ctrl-R. In memory only.
  void remember(const std::string& line);

 private:
  struct Library;
  const std::unique_ptr<Library> library_;
};

}  // namespace kzv::cli
