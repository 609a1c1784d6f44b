#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/NSError.h"
#include "sdk/DBSession.h"

/// Keeps the linked accounts and their tokens from one start to the next. Several processes may use one store
/// at the same time: every change is made to what is stored at that moment, so no process loses another's
/// account. Any thread; every call blocks for as long as the disk or the secret service takes, which is
/// bounded.
class CredentialStore {
 public:
  virtual ~CredentialStore() = default;
  /// In the order of linking; nothing when the store cannot be read (a store that does not exist is empty).
  virtual std::optional<std::vector<DBCredential>> load(NSErrorRef* error) = 0;
  /// Adds the account, or replaces it where it stands. On failure the store is as before.
  virtual bool save(const DBCredential& credential, NSErrorRef* error) = 0;
  /// Replaces the account if it is still there; an account that is not stays away. False only on failure.
  virtual bool update(const DBCredential& credential, NSErrorRef* error) = 0;
  /// Unknown accounts are fine.
  virtual bool remove(const std::string& userId, NSErrorRef* error) = 0;
};

/// A JSON file of mode 0600 in a folder of mode 0700 of its own, replaced as a whole; a lock file beside it
/// admits one writer at a time.
/// @param folder  where the store's own folder lies; created when it is missing.
std::unique_ptr<CredentialStore> makeFileCredentialStore(const std::string& folder,
                                                         const std::string& appKey);
/// The desktop's secret service (freedesktop.org Secret Service API). Every call fails within seconds when
/// there is none.
std::unique_ptr<CredentialStore> makeSecretCredentialStore(const std::string& appKey);
/// The secret service, and the file wherever that fails; the file alone when KZV_TOKEN_STORE is "file".
std::unique_ptr<CredentialStore> makeDefaultCredentialStore(const std::string& appKey);

/// One account as JSON text and back; nothing for any other text. Holds secrets.
std::string credentialText(const DBCredential& credential);
std::optional<DBCredential> credentialFromText(std::string_view text);
