#include "testing/ChildProcess.h"

#include <array>
#include <csignal>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
  int read = -1;
  int write = -1;
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    read = ends[0];
    write = ends[1];
  }
};

std::vector<std::string> environmentWith(const ChildProcess::Environment& added) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    if (!added.contains(text.substr(0, text.find('=')))) entries.push_back(text);
  }
  for (const auto& [name, value] : added) entries.push_back(name + "=" + value);
  return entries;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all;
  for (std::string& text : texts) all.push_back(text.data());
  all.push_back(nullptr);
  return all;
}

int millisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

/// Appends what is there; false at the end of the stream.
bool readSome(int file, std::string& text) {
  std::array<char, 65536> buffer{};
  const ssize_t count = ::read(file, buffer.data(), buffer.size());
  if (count > 0) text.append(buffer.data(), static_cast<std::size_t>(count));
  return count > 0;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const Environment& environment) {
  const Pipe input;
  const Pipe output;
  const Pipe errors;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.read, 0);
  posix_spawn_file_actions_adddup2(&actions, output.write, 1);
  posix_spawn_file_actions_adddup2(&actions, errors.write, 2);
  std::vector<std::string> words = arguments;
  std::vector<std::string> variables = environmentWith(environment);
  const int failure = posix_spawn(&pid_, words[0].c_str(), &actions, nullptr, pointers(words).data(),
                                  pointers(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  for (const int end : {input.read, output.write, errors.write}) ::close(end);
  input_ = input.write;
  output_ = output.read;
  errors_ = errors.read;
  if (failure != 0) throw std::runtime_error("cannot start " + words[0]);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  for (const int end : {input_, output_, errors_}) {
    if (end >= 0) ::close(end);
  }
}

void ChildProcess::writeInput(const std::string& text) {
  std::signal(SIGPIPE, SIG_IGN);  // a child that is gone is seen in its exit status
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = ::write(input_, text.data() + written, text.size() - written);
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  closeInput();
}

void ChildProcess::closeInput() {
  if (input_ >= 0) ::close(std::exchange(input_, -1));
}

std::optional<std::string> ChildProcess::readLine(std::chrono::seconds patience) {
  const auto deadline = Clock::now() + patience;
  while (true) {
    if (const auto end = unread_.find('\n'); end != std::string::npos) {
      std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    pollfd waiting{output_, POLLIN, 0};
    if (::poll(&waiting, 1, millisecondsUntil(deadline)) <= 0 || !readSome(output_, unread_))
      return std::nullopt;
  }
}

void ChildProcess::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);
}

ChildProcess::Outcome ChildProcess::finish(std::chrono::seconds patience) {
  closeInput();
  Outcome outcome;
  outcome.output = std::exchange(unread_, {});
  const auto deadline = Clock::now() + patience;
  std::array<pollfd, 2> waiting{pollfd{output_, POLLIN, 0}, pollfd{errors_, POLLIN, 0}};
  while (waiting[0].fd >= 0 || waiting[1].fd >= 0) {
    if (::poll(waiting.data(), waiting.size(), millisecondsUntil(deadline)) <= 0) {
      ::kill(pid_, SIGKILL);
      outcome.errors += "\n(killed by the test: it did not end in time)";
      break;
    }
    if (waiting[0].revents && !readSome(output_, outcome.output)) waiting[0].fd = -1;
    if (waiting[1].revents && !readSome(errors_, outcome.errors)) waiting[1].fd = -1;
  }
  int status = 0;
  ::waitpid(std::exchange(pid_, -1), &status, 0);
  outcome.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome;
}

ChildProcess::Outcome ChildProcess::run(const std::vector<std::string>& arguments,
                                        const Environment& environment, const std::string& input,
                                        std::chrono::seconds patience) {
  ChildProcess process(arguments, environment);
  process.writeInput(input);
  return process.finish(patience);
}
