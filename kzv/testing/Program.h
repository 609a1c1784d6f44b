#pragma once
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/types.h>

namespace kzv::cli {

/// The program under test as a child process of its own: the bundle of FolderPlugin, an own home folder, and
/// nothing of this process's environment that would matter.
class Program {
 public:
  struct Result {
    std::string out;
    std::string err;
    int status = -1;  // the exit status; 128 + signal number when killed; -1 when it did not end in time
  };
  using Environment = std::map<std::string, std::string>;

  /// Starts it. `arguments` without the program's name; `environment` is added to the usual one.
  /// @param outputFile  takes its standard output instead of this class; empty: none.
  explicit Program(const std::vector<std::string>& arguments, const Environment& environment = {},
                   const std::string& outputFile = {});
  /// Starts it on a terminal of its own, which takes the place of its three streams and of Ctrl-C; what it
  /// shows is the output.
  struct OnTerminal {};
  Program(OnTerminal terminal, const std::vector<std::string>& arguments, const Environment& environment);
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  /// Kills what still runs.
  ~Program();

  /// Writes to its standard input.
  void type(const std::string& text);
  /// Reads its standard output until `text` has come; false when it ends, or 20 s pass, before.
  bool waitForOutput(const std::string& text);
  /// The same for what has come since the text that the last call of this waited for.
  bool waitForNext(const std::string& text);
  /// Whether its terminal echoes and edits lines by itself, as it does between programs.
  bool isTerminalInUsualState() const;
  /// waitForOutput for a file that it writes.
  static bool waitForFile(const std::string& path, const std::string& text);
  void signal(int number) const;
  /// Whether it ends within `limit` although nobody reads its output.
  bool endsUnread(std::chrono::milliseconds limit) const;
  /// Reads its standard output no more.
  void closeOutput();
  /// Ends its input (unless told otherwise), reads all its output and waits for its end, at most `limit`.
  enum class Input { end, keepOpen };
  Result finish(std::chrono::seconds limit = std::chrono::seconds(30), Input input = Input::end);

  /// Starts it, types `input` and finishes it.
  static Result run(const std::vector<std::string>& arguments, const Environment& environment = {},
                    const std::string& input = {}, const std::string& outputFile = {});

 private:
  void start(const std::vector<std::string>& arguments, const Environment& environment,
             const posix_spawn_file_actions_t& actions, const posix_spawnattr_t* attributes);
  enum class Reading { more, ended, late };
  Reading readSome(std::chrono::steady_clock::time_point deadline);

  pid_t process_ = -1;
  int input_ = -1;
  int output_ = -1;
  int error_ = -1;
  std::size_t seen_ = 0;  // of the output, by waitForNext
  Result result_;
};

}  // namespace kzv::cli
