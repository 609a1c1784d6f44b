#include "kzv/testing/Program.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace kzv::cli {

using Clock = std::chrono::steady_clock;

namespace {

struct Pipe {
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    reader = ends[0];
    writer = ends[1];
  }
  int reader;
  int writer;
};

std::vector<std::string> fullEnvironment(const Program::Environment& added) {
  Program::Environment all{{"KZV_BUNDLE", KZV_TEST_BUNDLE}, {"TZ", "UTC"}, {"LC_ALL", "C.UTF-8"}};
  for (const char* kept : {"PATH", "HOME", "TMPDIR", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"})
    if (const char* value = std::getenv(kept)) all[kept] = value;
  // That sanitizer sleeps a second before a process ends, to catch races of the last moment; here the end is
  // timed.
  all["TSAN_OPTIONS"] += " atexit_sleep_ms=0";
  for (const auto& [name, value] : added) all[name] = value;
  std::vector<std::string> lines;
  lines.reserve(all.size());
  for (const auto& [name, value] : all) lines.push_back(fmt::format("{}={}", name, value));
  return lines;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all;
  all.reserve(texts.size() + 1);
  for (std::string& text : texts) all.push_back(text.data());
  all.push_back(nullptr);
  return all;
}

void closeOnce(int& file) {
  if (file >= 0) ::close(file);
  file = -1;
}

}  // namespace

Program::Program(const std::vector<std::string>& arguments, const Environment& environment,
                 const std::string& outputFile) {
  ::signal(SIGPIPE, SIG_IGN);
  const Pipe in;
  const Pipe out;
  const Pipe err;
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, in.reader, STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, out.writer, STDOUT_FILENO);
  if (!outputFile.empty())
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.c_str(), O_WRONLY | O_CREAT, 0600);
  ::posix_spawn_file_actions_adddup2(&actions, err.writer, STDERR_FILENO);
  start(arguments, environment, actions, nullptr);
  ::posix_spawn_file_actions_destroy(&actions);
  for (const int file : {in.reader, out.writer, err.writer}) ::close(file);
  input_ = in.writer;
  output_ = out.reader;
  error_ = err.reader;
}

Program::Program(OnTerminal /*terminal*/, const std::vector<std::string>& arguments,
                 const Environment& environment) {
  input_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  std::array<char, 64> name{};
  const bool isReady = input_ >= 0 && ::grantpt(input_) == 0 && ::unlockpt(input_) == 0 &&
                       ::ptsname_r(input_, name.data(), name.size()) == 0;
  if (!isReady) throw std::runtime_error("no terminal");
  output_ = ::fcntl(input_, F_DUPFD_CLOEXEC, 0);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  // The first terminal that the leader of a session opens controls it: Ctrl-C becomes a signal.
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, name.data(), O_RDWR, 0);
  ::posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO);
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  start(arguments, environment, actions, &attributes);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
}

void Program::start(const std::vector<std::string>& arguments, const Environment& environment,
                    const posix_spawn_file_actions_t& actions, const posix_spawnattr_t* attributes) {
  std::vector<std::string> words{"kzv"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  auto environmentLines = fullEnvironment(environment);
  if (::posix_spawn(&process_, KZV_PROGRAM, &actions, attributes, pointers(words).data(),
                    pointers(environmentLines).data()) != 0)
    throw std::runtime_error("cannot start " KZV_PROGRAM);
}

Program::~Program() {
  for (int* file : {&input_, &output_, &error_}) closeOnce(*file);
  if (process_ <= 0) return;
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

void Program::type(const std::string& text) {
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t count = ::write(input_, rest.data(), rest.size());
    if (count <= 0) return;  // it reads no more: its own matter
    rest.remove_prefix(static_cast<std::size_t>(count));
  }
}

Program::Reading Program::readSome(Clock::time_point deadline) {
  std::array<pollfd, 2> waiting{{{output_, POLLIN, 0}, {error_, POLLIN, 0}}};
  if (output_ < 0 && error_ < 0) return Reading::ended;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  if (left <= 0 || ::poll(waiting.data(), waiting.size(), static_cast<int>(left)) == 0) return Reading::late;
  const auto take = [](const pollfd& ready, int& file, std::string& text) {
    if (ready.revents == 0) return;
    char buffer[65536];
    const ssize_t count = ::read(file, buffer, sizeof buffer);
    if (count > 0) {
      text.append(buffer, static_cast<std::size_t>(count));
    } else {
      closeOnce(file);
    }
  };
  take(waiting[0], output_, result_.out);
  take(waiting[1], error_, result_.err);
  return Reading::more;
}

bool Program::waitForOutput(const std::string& text) {
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while (result_.out.find(text) == std::string::npos)
    if (readSome(deadline) != Reading::more) return false;
  return true;
}

bool Program::waitForNext(const std::string& text) {
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  std::size_t found = result_.out.find(text, seen_);
  for (; found == std::string::npos; found = result_.out.find(text, seen_))
    if (readSome(deadline) != Reading::more) return false;
  seen_ = found + text.size();
  return true;
}

bool Program::isTerminalInUsualState() const {
  termios state{};
  constexpr tcflag_t usual = ICANON | ECHO | ISIG;
  return ::tcgetattr(input_, &state) == 0 && (state.c_lflag & usual) == usual;
}

bool Program::waitForFile(const std::string& path, const std::string& text) {
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while (Clock::now() < deadline) {
    std::ifstream file(path);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    if (content.find(text) != std::string::npos) return true;
    std::this_thread::yield();
  }
  return false;
}

void Program::signal(int number) const { ::kill(process_, number); }

bool Program::endsUnread(std::chrono::milliseconds limit) const {
  const int process = static_cast<int>(::syscall(SYS_pidfd_open, process_, 0));
  pollfd waiting{process, POLLIN, 0};
  const int ended = ::poll(&waiting, 1, static_cast<int>(limit.count()));
  ::close(process);
  return ended == 1;
}

void Program::closeOutput() { closeOnce(output_); }

Program::Result Program::finish(std::chrono::seconds limit, Input input) {
  if (input == Input::end) closeOnce(input_);
  const auto deadline = Clock::now() + limit;
  Reading reading = Reading::more;
  while (reading == Reading::more) reading = readSome(deadline);
  if (reading == Reading::late) ::kill(process_, SIGKILL);
  int status = 0;
  ::waitpid(process_, &status, 0);
  process_ = -1;
  if (reading == Reading::late) {
    result_.status = -1;
  } else {
    result_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return result_;
}

Program::Result Program::run(const std::vector<std::string>& arguments, const Environment& environment,
                             const std::string& input, const std::string& outputFile) {
  Program program(arguments, environment, outputFile);
  program.type(input);
  return program.finish();
}

}  // namespace kzv::cli
