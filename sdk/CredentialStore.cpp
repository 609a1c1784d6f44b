#include "sdk/CredentialStore.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "foundation/NSLog.h"
#include "foundation/StandardFolders.h"
#include "sdk/ServiceJson.h"

namespace json = boost::json;

namespace {

/// Prefers the secret service and falls back to the file, call by call: it may come and go (a login without a
/// desktop, a keyring that stays locked). An account lives in one of the two; reading joins both.
class PreferringStore final : public CredentialStore {
 public:
  PreferringStore(std::unique_ptr<CredentialStore> preferred, std::unique_ptr<CredentialStore> fallback)
      : preferred_(std::move(preferred)), fallback_(std::move(fallback)) {}

  std::optional<std::vector<DBCredential>> load(NSErrorRef* error) override {
    NSErrorRef reason;
    auto credentials = preferred_->load(&reason);
    if (!credentials) NSLog(NSLogLevel::info, __func__, "No secret service; tokens are kept in a file.");
    auto filed = fallback_->load(error);
    if (!filed) return credentials;
    if (!credentials) return filed;
    for (DBCredential& credential : *filed) {
      const bool known = std::any_of(credentials->begin(), credentials->end(),
                                     [&](const auto& other) { return other.userId == credential.userId; });
      if (!known) credentials->push_back(std::move(credential));
    }
    return credentials;
  }

  bool save(const DBCredential& credential, NSErrorRef* error) override {
    if (preferred_->save(credential, nullptr)) {
      fallback_->remove(credential.userId, nullptr);  // an older copy of the tokens serves nobody
      return true;
    }
    return fallback_->save(credential, error);
  }

  bool update(const DBCredential& credential, NSErrorRef* error) override {
    return eitherSucceeds(
        [&](CredentialStore& store, NSErrorRef* reason) { return store.update(credential, reason); }, error);
  }

  bool remove(const std::string& userId, NSErrorRef* error) override {
    return eitherSucceeds(
        [&](CredentialStore& store, NSErrorRef* reason) { return store.remove(userId, reason); }, error);
  }

 private:
  template <class Change>
  bool eitherSucceeds(Change change, NSErrorRef* error) {
    NSErrorRef reason;
    const bool preferred = change(*preferred_, nullptr);
    if (change(*fallback_, &reason) || preferred) return true;
    setError(error, reason);
    return false;
  }

  const std::unique_ptr<CredentialStore> preferred_;
  const std::unique_ptr<CredentialStore> fallback_;
};

}  // namespace

std::unique_ptr<CredentialStore> makeDefaultCredentialStore(const std::string& appKey) {
  auto file = makeFileCredentialStore(dataFolder() + "/credentials", appKey);
  const char* choice = std::getenv("KZV_TOKEN_STORE");
  if (choice && std::string_view(choice) == "file") return file;
  return std::make_unique<PreferringStore>(makeSecretCredentialStore(appKey), std::move(file));
}

std::string credentialText(const DBCredential& credential) {
  return servicejson::asciiText(json::object{{"account_id", credential.userId},
                                             {"access_token", credential.accessToken},
                                             {"refresh_token", credential.refreshToken},
                                             {"expires_at", credential.expiresAtUnixSeconds}});
}

std::optional<DBCredential> credentialFromText(std::string_view text) {
  const auto document = servicejson::Document::parse(text);
  if (!document) return std::nullopt;
  const json::object& object = document->root();
  const auto userId = servicejson::text(object, "account_id");
  const auto token = servicejson::text(object, "access_token");
  if (!userId || userId->empty() || !token || token->empty()) return std::nullopt;
  return DBCredential{std::string(*userId), std::string(*token),
                      std::string(servicejson::text(object, "refresh_token").value_or("")),
                      servicejson::integer(object, "expires_at").value_or(0)};
}
