#include "sdk/credentials/CredentialStore.h"

#include <algorithm>
#include <boost/json.hpp>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "foundation/StandardFolders.h"
#include "sdk/wire/ServiceJson.h"

namespace kzv::sdk {

namespace json = boost::json;

namespace {

/// Prefers the secret service and falls back to the file in each call, since the service may not always be
/// available (a login without a desktop, a locked keyring). An account is stored in one of the two; load()
/// merges both.
class PreferringStore final : public CredentialStore {
 public:
  PreferringStore(std::unique_ptr<CredentialStore> preferred, std::unique_ptr<CredentialStore> fallback)
      : preferred_(std::move(preferred)), fallback_(std::move(fallback)) {}

  StoredAccounts load() override {
    StoredAccounts stored = preferred_->load();
    StoredAccounts filed = fallback_->load();
    for (DBCredential& credential : filed.credentials) {
      const bool known = std::any_of(stored.credentials.begin(), stored.credentials.end(),
                                     [&](const auto& other) { return other.userId == credential.userId; });
      if (!known) stored.credentials.push_back(std::move(credential));
    }
    if (!stored.error) stored.error = filed.error;
    return stored;
  }

  bool save(const DBCredential& credential, NSErrorRef* error, const IsWanted& isWanted) override {
    if (preferred_->save(credential, nullptr, isWanted)) {
      fallback_->remove(credential.userId, nullptr, nullptr);  // its tokens are outdated
      return true;
    }
    return fallback_->save(credential, error, isWanted);
  }

  bool update(const DBCredential& credential, NSErrorRef* error) override {
    const bool isFiled = fallback_->update(credential, error);
    return preferred_->update(credential, error) && isFiled;
  }

  bool remove(const std::string& userId, const DBCredential* only, NSErrorRef* error) override {
    const bool isFileFree = fallback_->remove(userId, only, error);
    return preferred_->remove(userId, only, error) && isFileFree;
  }

 private:
  const std::unique_ptr<CredentialStore> preferred_;
  const std::unique_ptr<CredentialStore> fallback_;
};

}  // namespace

bool isSameLinking(const DBCredential& left, const DBCredential& right) {
  if (left.userId != right.userId || left.refreshToken != right.refreshToken) return false;
  return !left.refreshToken.empty() || left.accessToken == right.accessToken;
}

bool failUnwanted(NSErrorRef* error) {
  setError(error, NSError::posix(ECANCELED, ""));
  return false;
}

// The service's own accounts are stored under the application's key alone, so that accounts stored by earlier
// versions without an origin count as the service's.
std::unique_ptr<CredentialStore> makeDefaultCredentialStore(const std::string& appKey,
                                                            const std::string& origin) {
  const std::string name = origin.empty() ? appKey : appKey + "@" + origin;
  const std::string folder = dataFolder() + "/credentials";
  auto file = makeFileCredentialStore(folder, name);
  const char* choice = std::getenv("KZV_TOKEN_STORE");
  if (choice && std::string_view(choice) == "file") return file;
  return std::make_unique<PreferringStore>(makeSecretCredentialStore(name, folder + "/secret-service.lock"),
                                           std::move(file));
}

std::string credentialText(const DBCredential& credential) {
  return servicejson::asciiText(json::object{{"account_id", credential.userId},
                                             {"access_token", credential.accessToken},
                                             {"refresh_token", credential.refreshToken},
                                             {"expires_at", credential.expiresAtUnixSeconds}});
}

std::optional<DBCredential> credentialFromText(std::string_view text) {
  const auto document = servicejson::Document::parseSecret(text);
  if (!document) return std::nullopt;
  const json::object& object = document->root();
  const auto userId = servicejson::text(object, "account_id");
  const auto token = servicejson::text(object, "access_token");
  if (!userId || userId->empty() || !token || token->empty()) return std::nullopt;
  return DBCredential{std::string(*userId), std::string(*token),
                      std::string(servicejson::text(object, "refresh_token").value_or("")),
                      servicejson::integer(object, "expires_at").value_or(0)};
}

}  // namespace kzv::sdk
