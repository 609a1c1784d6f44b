#include <algorithm>
#include <boost/json.hpp>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <functional>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "foundation/FileLock.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSLog.h"
#include "foundation/NSString.h"
#include "foundation/OwnFolder.h"
#include "foundation/PrivateFiles.h"
#include "foundation/Secrets.h"
#include "sdk/credentials/CredentialStore.h"
#include "sdk/wire/ServiceJson.h"

namespace kzv::sdk {

namespace json = boost::json;

namespace {

using Credentials = std::vector<DBCredential>;

constexpr std::uint64_t fileLimitBytes = 4UL * 1024 * 1024;
constexpr unsigned ownerReadWrite = 0600;
// A writer holds the lock for milliseconds; one that is suspended meanwhile must not block us for ever.
constexpr std::chrono::seconds longestWaitForLock{5};

/// A store's name, encoded as a folder name: "app/key" becomes "app_2fkey".
std::string fileNameFor(const std::string& storeName) {
  std::string name;
  for (const char c : storeName) {
    const auto byte = static_cast<unsigned char>(c);
    name += std::isalnum(byte) || c == '-' ? std::string(1, c) : fmt::format("_{:02x}", byte);
  }
  return name.empty() ? "default" : name;
}

struct ParsedFile {
  Credentials credentials;
  bool isWhole = false;  // false: the readable part of a damaged file
};

ParsedFile parsedFile(std::string_view text) {
  const auto document = servicejson::Document::parseSecret(text);
  const json::array* accounts = document ? servicejson::array(document->root(), "accounts") : nullptr;
  if (!accounts) return {};
  ParsedFile parsed{{}, true};
  for (const json::value& account : *accounts) {
    std::string record = json::serialize(account);
    const SecretScope cleared(record);
    auto credential = credentialFromText(record);
    parsed.isWhole = parsed.isWhole && credential;
    if (credential) parsed.credentials.push_back(*credential);
  }
  return parsed;
}

std::string fileText(const Credentials& credentials) {
  std::string text = "{\"accounts\":[";
  for (const DBCredential& credential : credentials) {
    std::string record = credentialText(credential);
    const SecretScope cleared(record);
    text.reserve(text.size() + record.size() + 16);
    if (&credential != &credentials.front()) text += ',';
    (text += "\n  ") += record;
  }
  return text += "\n]}\n";
}

auto positionOf(Credentials& credentials, const std::string& userId) {
  return std::find_if(credentials.begin(), credentials.end(),
                      [&](const DBCredential& credential) { return credential.userId == userId; });
}

class FileStore final : public CredentialStore {
 public:
  FileStore(const std::string& folder, const std::string& name)
      : folder_(folder + "/" + fileNameFor(name)), file_(folder_ + "/accounts.json") {}

  StoredAccounts load() override {
    StoredAccounts stored;
    bool isWhole = true;
    read(stored.credentials, isWhole, &stored.error);
    if (!isWhole) setError(&stored.error, damagedError());
    return stored;
  }

  bool save(const DBCredential& credential, NSErrorRef* error, const IsWanted& isWanted) override {
    bool wasWanted = true;
    const bool isSaved = change(error, [&](Credentials& credentials) {
      wasWanted = !isWanted || isWanted();
      if (!wasWanted) return false;
      const auto found = positionOf(credentials, credential.userId);
      if (found == credentials.end()) {
        credentials.push_back(credential);
      } else {
        *found = credential;
      }
      return true;
    });
    return wasWanted ? isSaved : failUnwanted(error);
  }

  bool update(const DBCredential& credential, NSErrorRef* error) override {
    return change(error, [&](Credentials& credentials) {
      const auto found = positionOf(credentials, credential.userId);
      if (found == credentials.end() || !isSameLinking(*found, credential)) return false;
      *found = credential;
      return true;
    });
  }

  bool remove(const std::string& userId, const DBCredential* only, NSErrorRef* error) override {
    return change(error, [&](Credentials& credentials) {
      const auto found = positionOf(credentials, userId);
      if (found == credentials.end() || (only && !isSameLinking(*found, *only))) return false;
      credentials.erase(found);
      return true;
    });
  }

 private:
  /// @param isWhole  false when the file is damaged; `credentials` is then its readable part.
  bool read(Credentials& credentials, bool& isWhole, NSErrorRef* error) const {
    NSErrorRef reason;
    auto text = readPrivateFile(file_, fileLimitBytes, &reason);
    if (!text && reason->code() == ENOENT) return true;
    if (!text) {
      setError(error, reason);
      return false;
    }
    const SecretScope cleared(*text);
    ParsedFile parsed = parsedFile(*text);
    credentials = std::move(parsed.credentials);
    isWhole = parsed.isWhole;
    return true;
  }

  NSErrorRef damagedError() const {
    return NSError::withText(NSPOSIXErrorDomain, EBADMSG, "the file of linked accounts is damaged: " + file_);
  }

  /// Keeps a damaged file under another name before it is replaced: a person may still read parts of it.
  /// REQUIRES the lock.
  bool moveAside(NSErrorRef* error) const {
    constexpr int mostKept = 100;
    for (int number = 1; number <= mostKept; ++number) {
      const std::string aside = file_ + ".damaged-" + std::to_string(number);
      if (::link(file_.c_str(), aside.c_str()) == 0) {
        NSLog(NSLogLevel::error, "CredentialStore",
              "The file of linked accounts is damaged; it is kept as " + aside);
        return true;
      }
      if (errno != EEXIST) break;
    }
    setError(error, damagedError());
    return false;
  }

  /// Removes temporary files of killed writers, and nothing else: the folder may be a link to one with other
  /// files. REQUIRES the lock: nobody else is writing.
  void removeLeftovers() const {
    const auto folder = OwnFolder::open(folder_);
    if (!folder) return;
    for (const std::string& name : folder->names())
      if (isAtomicWriteName(name)) folder->removeFile(name);
  }

  /// Reads, calls `edit`, and writes back if it returns true, under the lock.
  bool change(NSErrorRef* error, const std::function<bool(Credentials&)>& edit) {
    if (!makePrivateFolder(folder_, error)) return false;
    const FileLock lock(file_ + ".lock", longestWaitForLock);
    if (!lock.isHeld()) {
      setError(error, lock.error());
      return false;
    }
    removeLeftovers();
    Credentials credentials;
    bool isWhole = true;
    if (!read(credentials, isWhole, error)) return false;
    if (!edit(credentials)) return true;
    if (!isWhole && !moveAside(error)) return false;
    std::string text = fileText(credentials);
    const SecretScope cleared(text);
    return writeFileAtomically(file_, text, ownerReadWrite, error);
  }

  const std::string folder_;
  const std::string file_;
};

}  // namespace

std::unique_ptr<CredentialStore> makeFileCredentialStore(const std::string& folder, const std::string& name) {
  return std::make_unique<FileStore>(folder, name);
}

}  // namespace kzv::sdk
