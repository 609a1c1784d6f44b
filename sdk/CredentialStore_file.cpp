#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/NSFileManager.h"
#include "foundation/NSLog.h"
#include "foundation/OwnFolder.h"
#include "sdk/CredentialStore.h"
#include "sdk/ServiceJson.h"

namespace json = boost::json;

namespace {

using Credentials = std::vector<DBCredential>;

constexpr std::uint64_t fileLimitBytes = 4UL * 1024 * 1024;
constexpr unsigned ownerReadWrite = 0600;
constexpr unsigned ownerOnlyFolder = 0700;
// A writer holds the lock for some milliseconds; one that was stopped while it held it must not stop us, too.
constexpr std::chrono::seconds longestWaitForLock{5};

/// An application's key as a folder's name; what is not plain becomes its hexadecimal code.
std::string fileNameFor(const std::string& appKey) {
  std::string name;
  for (const char c : appKey) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) || c == '-') {
      name += c;
    } else {
      name += '_';
      name += "0123456789abcdef"[byte >> 4];
      name += "0123456789abcdef"[byte & 15];
    }
  }
  return name.empty() ? "default" : name;
}

/// Holds the store's lock file for its lifetime. The lock goes with the process, however that ends.
class StoreLock {
 public:
  explicit StoreLock(const std::string& path)
      : descriptor_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, ownerReadWrite)) {
    if (descriptor_ < 0) {
      errno_ = errno;
      return;
    }
    const auto giveUpAt = std::chrono::steady_clock::now() + longestWaitForLock;
    while (::flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
      errno_ = errno;
      if ((errno_ != EWOULDBLOCK && errno_ != EINTR) || std::chrono::steady_clock::now() > giveUpAt) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    errno_ = 0;
  }
  ~StoreLock() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
  int errnoValue() const noexcept { return errno_; }  // 0: held

 private:
  const int descriptor_;
  int errno_ = 0;
};

std::optional<Credentials> parsedFile(std::string_view text) {
  const auto document = servicejson::Document::parse(text);
  const json::array* accounts = document ? servicejson::array(document->root(), "accounts") : nullptr;
  if (!accounts) return std::nullopt;
  Credentials credentials;
  for (const json::value& account : *accounts) {
    if (auto credential = credentialFromText(json::serialize(account))) {
      credentials.push_back(std::move(*credential));
    }
  }
  return credentials;
}

std::string fileText(const Credentials& credentials) {
  std::string text = "{\"accounts\":[";
  for (const DBCredential& credential : credentials) {
    if (&credential != &credentials.front()) text += ',';
    text += "\n  " + credentialText(credential);
  }
  return text += "\n]}\n";
}

auto positionOf(Credentials& credentials, const std::string& userId) {
  return std::find_if(credentials.begin(), credentials.end(),
                      [&](const DBCredential& credential) { return credential.userId == userId; });
}

class FileStore final : public CredentialStore {
 public:
  FileStore(const std::string& folder, const std::string& appKey)
      : folder_(folder + "/" + fileNameFor(appKey)), file_(folder_ + "/accounts.json") {}

  std::optional<Credentials> load(NSErrorRef* error) override {
    return read(error, [] {});
  }

  bool save(const DBCredential& credential, NSErrorRef* error) override {
    return change(error, [&](Credentials& credentials) {
      const auto found = positionOf(credentials, credential.userId);
      if (found == credentials.end()) {
        credentials.push_back(credential);
      } else {
        *found = credential;
      }
      return true;
    });
  }

  bool update(const DBCredential& credential, NSErrorRef* error) override {
    return change(error, [&](Credentials& credentials) {
      const auto found = positionOf(credentials, credential.userId);
      if (found == credentials.end()) return false;
      *found = credential;
      return true;
    });
  }

  bool remove(const std::string& userId, NSErrorRef* error) override {
    return change(error, [&](Credentials& credentials) {
      const auto found = positionOf(credentials, userId);
      if (found == credentials.end()) return false;
      credentials.erase(found);
      return true;
    });
  }

 private:
  /// A damaged file counts as empty; `putAside` then decides what becomes of it.
  std::optional<Credentials> read(NSErrorRef* error, const std::function<void()>& putAside) const {
    struct stat status {};
    if (::lstat(file_.c_str(), &status) != 0 && errno == ENOENT) return Credentials{};
    const auto text = readFile(file_, fileLimitBytes, error);
    if (!text) return std::nullopt;
    if (auto credentials = parsedFile(*text)) return credentials;
    NSLog(NSLogLevel::error, __func__, "The file of linked accounts is damaged: " + file_);
    putAside();
    return Credentials{};
  }

  /// What a writer left behind that was killed in the middle, and nothing else: the folder may be a link to
  /// one that holds other things. REQUIRES the lock: nobody else writes now.
  void removeLeftovers() const {
    const auto folder = OwnFolder::open(folder_);
    if (!folder) return;
    for (const std::string& name : folder->names())
      if (isAtomicWriteName(name)) folder->removeFile(name);
  }

  bool makeFolder(NSErrorRef* error) const {
    struct stat status {};
    if (::stat(folder_.c_str(), &status) != 0) {
      if (!NSFileManager::defaultManager().createDirectoryAtPath(folder_, true, error)) return false;
    } else if ((status.st_mode & 0777) == ownerOnlyFolder) {
      return true;
    }
    if (::chmod(folder_.c_str(), ownerOnlyFolder) == 0) return true;
    setError(error, NSError::posix(errno, folder_));
    return false;
  }

  /// Reads, lets `edit` change, and writes back if it says so; all that under the lock.
  bool change(NSErrorRef* error, const std::function<bool(Credentials&)>& edit) {
    if (!makeFolder(error)) return false;
    const StoreLock lock(file_ + ".lock");
    if (lock.errnoValue() != 0) {
      setError(error, NSError::posix(lock.errnoValue(), file_));
      return false;
    }
    removeLeftovers();
    // The write below would be its end, and perhaps a person can still read something in it.
    auto credentials = read(error, [&] { ::rename(file_.c_str(), (file_ + ".damaged").c_str()); });
    if (!credentials) return false;
    return !edit(*credentials) || writeFileAtomically(file_, fileText(*credentials), ownerReadWrite, error);
  }

  const std::string folder_;
  const std::string file_;
};

}  // namespace

std::unique_ptr<CredentialStore> makeFileCredentialStore(const std::string& folder,
                                                         const std::string& appKey) {
  return std::make_unique<FileStore>(folder, appKey);
}
