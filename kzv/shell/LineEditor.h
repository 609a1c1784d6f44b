#pragma once
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kzv/shell/Completion.h"

namespace kzv::cli {

/// Reads lines from a person at the terminal (standard input and standard error), with editing, history and
/// completion by Tab. The terminal's settings are changed only during readLine(). One at a time; used on the
/// thread that constructs it.
class LineEditor {
 public:
  using Completer = std::function<std::optional<Completion>(const std::string& lineToCursor)>;
  enum class Result {
    line,
    interrupted,  // Ctrl-C: the line is discarded
    endOfInput,   // Ctrl-D on an empty line
    endRequested  // SIGTERM or SIGHUP
  };

  explicit LineEditor(Completer completer);
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;
  ~LineEditor();

  /// Blocks until a line has been typed (stored without its line feed), or one of the other results.
  Result readLine(const std::string& prompt, std::string& line);
  /// Adds a line to the history (arrow keys, Ctrl-R), in memory only.
  void remember(const std::string& line);

 private:
  struct Library;
  const std::unique_ptr<Library> library_;
};

}  // namespace kzv::cli
