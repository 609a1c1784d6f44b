#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "foundation/NSError.h"
#include "sdk/DBSession.h"

namespace kzv::sdk {

/// The contents of a store.
struct StoredAccounts {
  std::vector<DBCredential> credentials;  // in the order of linking
  NSErrorRef error;  // set: the store could not be read, or only in part, so accounts may be missing
};

/// Persistent store of the linked accounts and tokens of one application at one service. Several processes
/// may use one store concurrently: each change is applied to the current contents, so that no process loses
/// another's account or overwrites a newer linking. Any thread; every call blocks for the disk or the secret
/// service, for a bounded time.
class CredentialStore {
 public:
  /// Called just before the store is changed; false leaves it unchanged.
  using IsWanted = std::function<bool()>;

  virtual ~CredentialStore() = default;
  /// A store that does not exist is empty.
  virtual StoredAccounts load() = 0;
  /// Adds the account, or replaces it in its place. On failure the store is unchanged; if `isWanted` returns
  /// false, the call fails with POSIX error ECANCELED.
  virtual bool save(const DBCredential& credential, NSErrorRef* error, const IsWanted& isWanted = {}) = 0;
  /// Replaces the account if the stored one is of the same linking (isSameLinking). False only on failure.
  virtual bool update(const DBCredential& credential, NSErrorRef* error) = 0;
  /// Removes the account; with `only`, if the stored one is of that linking. Succeeds if there is none.
  virtual bool remove(const std::string& userId, const DBCredential* only, NSErrorRef* error) = 0;
};

/// Whether two credentials of an account come from the same linking: a renewal keeps the refresh token.
bool isSameLinking(const DBCredential& left, const DBCredential& right);
/// Sets ECANCELED and returns false.
bool failUnwanted(NSErrorRef* error);

/// A JSON file of mode 0600 in a folder of mode 0700 of its own, replaced as a whole; a lock file allows one
/// writer at a time.
/// @param folder  the parent of the store's folder; created if missing.
/// @param name    names the application and the service.
std::unique_ptr<CredentialStore> makeFileCredentialStore(const std::string& folder, const std::string& name);
/// The desktop's secret service (freedesktop.org Secret Service API). Every call fails within seconds when it
/// does not answer; without one, the store is empty and stores nothing.
/// @param lockFile  allows one writer at a time, since the secret service has no atomic compare-and-replace.
std::unique_ptr<CredentialStore> makeSecretCredentialStore(const std::string& name,
                                                           const std::string& lockFile);
/// The secret service, with the file as a fallback; only the file when KZV_TOKEN_STORE is "file".
/// @param origin  the origin of the service's stand-in; empty for the service itself. Tokens issued by one
///                origin are never used for another.
std::unique_ptr<CredentialStore> makeDefaultCredentialStore(const std::string& appKey,
                                                            const std::string& origin);

/// One account as JSON text and back; nothing for invalid text. Secret.
std::string credentialText(const DBCredential& credential);
std::optional<DBCredential> credentialFromText(std::string_view text);

}  // namespace kzv::sdk
