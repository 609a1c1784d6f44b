#pragma once
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

/// A program started by a test, with pipes to its standard streams. Killed and reaped at the end if it still
/// runs.
class ChildProcess {
 public:
  using Environment = std::map<std::string, std::string>;
  struct Outcome {
    int exitStatus = -1;  // 128 + signal when a signal ended it
    std::string output;
    std::string errors;
  };

  /// @param arguments    the program's path first.
  /// @param environment  added to this process's.
  ChildProcess(const std::vector<std::string>& arguments, const Environment& environment = {});
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t pid() const noexcept { return pid_; }
  /// Writes to the child's standard input and closes it.
  void writeInput(const std::string& text);
  /// The next line of its output without the line feed; nothing at the end or after `patience`.
  std::optional<std::string> readLine(std::chrono::seconds patience);
  void signal(int number) const;
  /// Collects what it writes until it ends; kills it when that takes longer than `patience`.
  Outcome finish(std::chrono::seconds patience);

  /// Runs a program to its end, with `input` on its standard input.
  static Outcome run(const std::vector<std::string>& arguments, const Environment& environment = {},
                     const std::string& input = {}, std::chrono::seconds patience = std::chrono::seconds(50));

 private:
  void closeInput();
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int errors_ = -1;
  std::string unread_;  // output read past the last line
};
