#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <utility>

#include <libsecret/secret.h>

#include "foundation/NSString.h"
#include "sdk/CredentialStore.h"
#include "sdk/DBError.h"
#include "sdk/ServiceJson.h"

namespace {

using Credentials = std::vector<DBCredential>;

constexpr std::chrono::seconds longestCall{10};
constexpr std::chrono::seconds longestCancel{1};

struct GErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
struct ObjectUnref {
  void operator()(void* object) const { g_object_unref(object); }
};
template <class T>
using ObjectRef = std::unique_ptr<T, ObjectUnref>;

const SecretSchema* schema() {
  static const SecretSchema accounts = {"org.kzv.DropboxAccount",
                                        SECRET_SCHEMA_NONE,
                                        {{"application", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                         {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                         {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                                        0,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr};
  return &accounts;
}

/// The outcome of a call, shared with a thread that may be left behind.
struct Call {
  ObjectRef<GCancellable> cancellable{g_cancellable_new()};
  std::promise<bool> succeeded;
  Credentials found;
};

/// Runs `body` on a thread of its own, because a secret service that hangs (or waits for a person to unlock
/// it) would hold the caller for as long. False when it fails or takes too long.
bool runBounded(const std::shared_ptr<Call>& call, const std::function<bool(Call&)>& body) {
  auto outcome = call->succeeded.get_future();
  std::thread([call, body] { call->succeeded.set_value(body(*call)); }).detach();
  if (outcome.wait_for(longestCall) != std::future_status::ready) {
    g_cancellable_cancel(call->cancellable.get());
    if (outcome.wait_for(longestCancel) != std::future_status::ready) return false;
  }
  return outcome.get();
}

bool succeeded(GError* error) {
  const std::unique_ptr<GError, GErrorFree> owner(error);
  return !owner;
}

/// Adds the account kept in `item`, if its secret can be read (a locked item has none).
void collect(SecretRetrievable* item, Call& call) {
  GError* error = nullptr;
  SecretValue* value = secret_retrievable_retrieve_secret_sync(item, call.cancellable.get(), &error);
  if (succeeded(error) && value) {
    if (const char* text = secret_value_get_text(value)) {
      if (auto credential = credentialFromText(text)) call.found.push_back(std::move(*credential));
    }
  }
  if (value) secret_value_unref(value);
}

void sortByCreation(GList*& items) {
  items = g_list_sort(items, [](gconstpointer left, gconstpointer right) {
    const auto created = [](gconstpointer item) {
      return secret_retrievable_get_created(SECRET_RETRIEVABLE(const_cast<void*>(item)));
    };
    return created(left) < created(right) ? -1 : created(left) > created(right) ? 1 : 0;
  });
}

bool search(const std::string& appKey, Call& call) {
  GError* error = nullptr;
  GList* items = secret_password_search_sync(
      schema(),
      static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | SECRET_SEARCH_UNLOCK | SECRET_SEARCH_LOAD_SECRETS),
      call.cancellable.get(), &error, "application", appKey.c_str(), nullptr);
  if (!succeeded(error)) return false;
  sortByCreation(items);  // replacing an item keeps the time of its creation, so an account keeps its place
  for (GList* item = items; item; item = item->next) collect(SECRET_RETRIEVABLE(item->data), call);
  g_list_free_full(items, g_object_unref);
  return true;
}

/// One item of the default collection per account.
class SecretStore final : public CredentialStore {
 public:
  explicit SecretStore(std::string appKey) : appKey_(std::move(appKey)) {}

  std::optional<Credentials> load(NSErrorRef* error) override {
    const auto call = std::make_shared<Call>();
    if (runBounded(call, [appKey = appKey_](Call& own) { return search(appKey, own); })) {
      return std::move(call->found);
    }
    setError(error, unavailable());
    return std::nullopt;
  }

  bool save(const DBCredential& credential, NSErrorRef* error) override {
    const auto body = [appKey = appKey_, userId = credential.userId,
                       text = credentialText(credential)](Call& own) {
      GError* failure = nullptr;
      const bool stored = secret_password_store_sync(
          schema(), SECRET_COLLECTION_DEFAULT, ("Dropbox account " + userId).c_str(), text.c_str(),
          own.cancellable.get(), &failure, "application", appKey.c_str(), "account", userId.c_str(), nullptr);
      return succeeded(failure) && stored;
    };
    return finished(runBounded(std::make_shared<Call>(), body), error);
  }

  bool update(const DBCredential& credential, NSErrorRef* error) override {
    const auto stored = load(error);
    if (!stored) return false;
    const bool known = std::any_of(stored->begin(), stored->end(), [&](const DBCredential& other) {
      return other.userId == credential.userId;
    });
    return !known || save(credential, error);
  }

  bool remove(const std::string& userId, NSErrorRef* error) override {
    const auto body = [appKey = appKey_, userId](Call& own) {
      GError* failure = nullptr;
      secret_password_clear_sync(schema(), own.cancellable.get(), &failure, "application", appKey.c_str(),
                                 "account", userId.c_str(), nullptr);
      return succeeded(failure);
    };
    return finished(runBounded(std::make_shared<Call>(), body), error);
  }

 private:
  static NSErrorRef unavailable() {
    return std::make_shared<NSError>(
        std::string(DBErrorDomain), DBErrorLocalFile,
        NSDictionary::with(
            {{NSLocalizedDescriptionKey, str("The desktop's secret service does not answer.")}}));
  }
  static bool finished(bool outcome, NSErrorRef* error) {
    if (!outcome) setError(error, unavailable());
    return outcome;
  }

  const std::string appKey_;
};

}  // namespace

std::unique_ptr<CredentialStore> makeSecretCredentialStore(const std::string& appKey) {
  return std::make_unique<SecretStore>(appKey);
}
