#pragma once
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "testing/StandIn.h"
#include "testing/TemporaryFolder.h"

/// What the tests of `kzv mount` share: a mount of Ada's account from a running kzv-service, and file calls
/// that throw std::system_error.
namespace fs = std::filesystem;
namespace json = boost::json;
using namespace std::chrono_literals;

using Tree = std::map<std::string, std::int64_t>;

/// Waits, within bounds, for what another process or the service does in its own time.
inline bool soon(const std::function<bool()>& isSo) {
  for (const auto end = std::chrono::steady_clock::now() + 30s; std::chrono::steady_clock::now() < end;) {
    if (isSo()) return true;
    ::poll(nullptr, 0, 20);
  }
  return isSo();
}

/// What a service manager hears from the program (sd_notify(3)).
class ReadySocket {
 public:
  explicit ReadySocket(const std::string& path)
      : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)), path_(path) {
    ::unlink(path.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ReadySocket(const ReadySocket&) = delete;
  ReadySocket& operator=(const ReadySocket&) = delete;
  ~ReadySocket() { ::close(socket_); }

  const std::string& path() const { return path_; }
  std::string next() const {
    pollfd wait{socket_, POLLIN, 0};
    std::array<char, 256> text{};
    if (::poll(&wait, 1, 20'000) <= 0) return "nothing";
    const ssize_t count = ::recv(socket_, text.data(), text.size(), 0);
    return {text.data(), count > 0 ? static_cast<std::size_t>(count) : 0};
  }

 private:
  const int socket_;
  const std::string path_;
};

inline std::string contentOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class MountTest : public testing::Test {
 protected:
  void SetUp() override {
    const int device = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (device < 0) GTEST_SKIP() << "/dev/fuse cannot be opened: " << std::strerror(errno);
    ::close(device);
    ASSERT_EQ(kzv({"link", "--token-stdin"}, "ada-token\n").exitStatus, 0);
  }
  ~MountTest() override {
    ::umount2(root.c_str(), MNT_FORCE | MNT_DETACH);
    if (process_) process_->finish(10s);
  }

  ChildProcess::Environment environment() const {
    return {{"KZV_HOME", home.path()},
            {"KZV_SERVICE_URL", standIn.url()},
            {"KZV_TOKEN_STORE", "file"},
            {"KZV_BUNDLE", KZV_BUNDLE_PATH},
            {"KZV_POLL_SECONDS", pollSeconds}};
  }
  ChildProcess::Outcome kzv(std::vector<std::string> arguments, const std::string& input = {}) {
    arguments.insert(arguments.begin(), KZV_PROGRAM);
    return ChildProcess::run(arguments, environment(), input);
  }
  /// Runs a line of the shell in the mounted folder, with "$FILES" for a folder elsewhere.
  ChildProcess::Outcome sh(const std::string& line) {
    return ChildProcess::run({"/bin/sh", "-c", "cd \"$ROOT\" && " + line},
                             {{"ROOT", root.string()}, {"FILES", files.path()}}, {}, 100s);
  }
  void mount() {
    auto all = environment();
    const ReadySocket ready(home.path() + "/ready");
    all["NOTIFY_SOCKET"] = ready.path();
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{KZV_PROGRAM, "mount", "--foreground", root.string()}, all);
    const std::string said = ready.next();
    if (!said.starts_with("READY=1")) FAIL() << said << process_->finish(1s).errors;
  }
  int end(int signal) {
    process_->signal(signal);
    return std::exchange(process_, nullptr)->finish(20s).exitStatus;
  }
  /// The exit status of the program that was mounted.
  int unmount() {
    EXPECT_EQ(kzv({"umount", root.string()}).exitStatus, 0);
    return std::exchange(process_, nullptr)->finish(20s).exitStatus;
  }
  std::size_t waiting() const { return waitingPaths().size(); }
  /// The remote paths of the journal's entries; one that goes meanwhile is "".
  std::vector<std::string> waitingPaths() const {
    std::vector<std::string> paths;
    std::error_code gone;
    for (const auto& entry : fs::recursive_directory_iterator(home.path(), gone)) {
      if (entry.path().extension() != ".json" || entry.path().parent_path().filename() != "pending") continue;
      const std::string text = contentOf(entry.path());
      paths.emplace_back(text.empty() ? "" : json::parse(text).at("path").as_string());
    }
    return paths;
  }

  TemporaryFolder home;
  TemporaryFolder mountpoint;
  TemporaryFolder files;
  StandIn standIn;
  const fs::path root = mountpoint.path();
  std::string pollSeconds = "1";  // of the next mount
  std::unique_ptr<ChildProcess> process_;
};

/// Throws what a system call that gave `result` says.
inline ssize_t must(ssize_t result) {
  if (result < 0) throw std::system_error(errno, std::generic_category());
  return result;
}
/// The errno value that ended `calls`; 0: none did.
inline int errnoOf(const std::function<void()>& calls) {
  try {
    calls();
    return 0;
  } catch (const std::system_error& error) {
    return error.code().value();
  }
}

/// An open file, closed at the end or by close().
struct File {
  File(const fs::path& path, int flags)
      : number(static_cast<int>(must(::open(path.c_str(), flags | O_CLOEXEC, 0644)))) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { ::close(number); }
  void put(const std::string& text) const { must(::write(number, text.data(), text.size())); }
  void sync() const { must(::fsync(number)); }
  void close() { must(::close(std::exchange(number, -1))); }
  int number;
};

constexpr int anew = O_WRONLY | O_CREAT | O_EXCL;

inline void store(const fs::path& path, const std::string& text, int flags = O_WRONLY | O_CREAT | O_TRUNC) {
  File file(path, flags);
  file.put(text);
  file.close();
}
inline void storeSynced(const fs::path& path, const std::string& text, int flags) {
  const File file(path, flags);
  file.put(text);
  file.sync();
}
inline void unlink(const fs::path& path) { must(::unlink(path.c_str())); }
inline void moveFile(const fs::path& from, const fs::path& to, unsigned flags = 0) {
  must(::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags));
}
