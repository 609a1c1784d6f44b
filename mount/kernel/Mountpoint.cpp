#include "mount/kernel/Mountpoint.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "foundation/Descriptor.h"
#include "foundation/NSFileManager.h"
#include "foundation/Paths.h"

namespace fs = std::filesystem;

using namespace std::chrono_literals;

namespace kzv::mount {

namespace {

constexpr std::uintmax_t largestLogBytes = 1'000'000;
constexpr mode_t privateFile = 0600;

/// The absolute path; symbolic links are resolved where the file system answers.
std::string absolutePath(const std::string& typed) {
  std::error_code code;
  fs::path path = fs::absolute(typed, code).lexically_normal();
  if (!path.has_filename()) path = path.parent_path();
  const fs::path parent = fs::canonical(path.parent_path(), code);
  return code ? path.string() : (parent / path.filename()).string();
}

/// Runs a program and waits for it. Returns its exit status, or -1 with errno.
int runProgram(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  pid_t process = 0;
  if (const int reason =
          ::posix_spawnp(&process, arguments[0], nullptr, nullptr, arguments.data(), environ)) {
    errno = reason;
    return -1;
  }
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

enum class Mode { normal, lazy };
/// 0 or an errno value.
int detach(const std::string& path, Mode mode) {
  if (::umount2(path.c_str(), mode == Mode::lazy ? MNT_DETACH : UMOUNT_NOFOLLOW) == 0) return 0;
  if (errno != EPERM) return errno;
  // Not root: libfuse has a helper for other users.
  const int status = runProgram({"fusermount3", mode == Mode::lazy ? "-uz" : "-u", "-q", "--", path});
  if (status == 0) return 0;
  return status < 0 ? ENOSYS : EBUSY;
}

std::optional<std::string> refusal(NSErrorRef* error, int reason, std::string text) {
  setError(error, NSError::withText(NSPOSIXErrorDomain, reason, std::move(text)));
  return std::nullopt;
}

void writeAll(int file, std::string_view text) {
  [[maybe_unused]] const ssize_t ignored = ::write(file, text.data(), text.size());
}

void notifyServiceManager(std::string_view state) {
  const char* name = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  if (!name || (*name != '/' && *name != '@') || std::strlen(name) >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, name);  // NOLINT(clang-analyzer-security.insecureAPI.strcpy): measured above
  if (*name == '@') address.sun_path[0] = '\0';
  const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(name));
  if (socket.isOpen())
    ::sendto(socket.number(), state.data(), state.size(), MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr*>(&address), length);
}

constexpr std::string_view readyWord = "ready\n";

/// Whether the process behind the mount at `path` has died. Asks for an extended attribute, which the kernel
/// never caches.
bool isDeadMount(const std::string& path) {
  return ::getxattr(path.c_str(), "user.kzv.rev", nullptr, 0) < 0 && errno == ENOTCONN;
}

}  // namespace

bool isMountpoint(const std::string& path) {
  struct stat here {};
  struct stat above {};
  if (::lstat(path.c_str(), &here) != 0) return errno == ENOTCONN;
  return ::stat(deletingLastPathComponent(path).c_str(), &above) == 0 && here.st_dev != above.st_dev;
}

std::optional<std::string> prepareMountpoint(const std::string& typed, NSErrorRef* error) {
  const std::string path = absolutePath(typed);
  struct stat status {};
  if (isDeadMount(path)) {
    // Left by a process that was killed: nothing can be in use there.
    if (const int reason = detach(path, Mode::lazy))
      return refusal(error, reason, "a mount whose process has died is in the way");
  }
  if (::stat(path.c_str(), &status) != 0) {
    return refusal(
        error, errno,
        errno == ENOENT ? "no such folder; make it first with: mkdir " + path : std::strerror(errno));
  }
  if (!S_ISDIR(status.st_mode)) return refusal(error, ENOTDIR, "not a folder");
  if (isMountpoint(path)) return refusal(error, EBUSY, "something is already mounted there");
  return path;
}

std::optional<std::string> unmountAt(const std::string& typed, NSErrorRef* error) {
  const std::string path = absolutePath(typed);
  int reason = isMountpoint(path) ? detach(path, Mode::normal) : EINVAL;
  // A file that was just closed, or a folder that a file manager reads, may be in use a moment longer.
  constexpr int tries = 20;
  constexpr auto interval = 100ms;
  for (int attempt = 1; reason == EBUSY && attempt < tries; ++attempt) {
    std::this_thread::sleep_for(interval);
    reason = detach(path, Mode::normal);
  }
  if (reason == 0) return path;
  std::string text = std::strerror(reason);
  if (reason == EINVAL) text = "nothing is mounted there";
  if (reason == EBUSY) text = "it is in use: end the programs that use it (see: fuser -vm " + path + ")";
  if (reason == ENOSYS) text = "fusermount3 is not installed (Debian: fuse3)";
  return refusal(error, reason, std::move(text));
}

void reportReady(int readyDescriptor) {
  if (readyDescriptor >= 0) {
    writeAll(readyDescriptor, readyWord);
    ::close(readyDescriptor);
  }
  notifyServiceManager("READY=1");
}

BackgroundStart startInBackground(const std::vector<std::string>& arguments, const std::string& logFile,
                                  NSErrorRef* error) {
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) {
    setError(error, NSError::posix(errno, ""));
    return {};
  }
  const Descriptor fromChild(pipe[0]);
  Descriptor toParent(pipe[1]);
  constexpr int childDescriptor = 3;
  std::vector<std::string> words{"kzv"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  words.insert(words.end(), {"--ready-fd", std::to_string(childDescriptor), "--log", logFile});
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);

  // Until ready, its output goes to this process.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, toParent.number(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, toParent.number(), STDERR_FILENO);
  posix_spawn_file_actions_adddup2(&actions, toParent.number(), childDescriptor);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  sigset_t usual;
  sigemptyset(&usual);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) sigaddset(&usual, number);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &usual);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t process = 0;
  const int reason =
      ::posix_spawn(&process, "/proc/self/exe", &actions, &attributes, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (reason != 0) {
    setError(error, NSError::posix(reason, "/proc/self/exe"));
    return {};
  }
  toParent.close();
  BackgroundStart start;
  std::array<char, 4096> buffer;  // NOLINT: filled before use
  while (!start.output.ends_with(readyWord)) {
    const ssize_t count = ::read(fromChild.number(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    start.output.append(buffer.data(), static_cast<std::size_t>(count));
  }
  start.isReady = start.output.ends_with(readyWord);
  if (start.isReady) {
    start.output.resize(start.output.size() - readyWord.size());
    return start;
  }
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  start.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  return start;
}

void writeToLog(const std::string& logFile) {
  std::error_code code;
  const bool isLarge = fs::file_size(logFile, code) > largestLogBytes && !code;
  const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (isLarge ? O_TRUNC : O_APPEND);
  const Descriptor log(::open(logFile.c_str(), flags, privateFile));
  const Descriptor nothing(log.isOpen() ? -1 : ::open("/dev/null", O_WRONLY | O_CLOEXEC));
  const int file = log.isOpen() ? log.number() : nothing.number();
  ::dup2(file, STDOUT_FILENO);
  ::dup2(file, STDERR_FILENO);
}

}  // namespace kzv::mount
