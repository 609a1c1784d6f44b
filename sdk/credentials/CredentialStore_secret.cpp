#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <utility>

#include <libsecret/secret.h>

#include "foundation/FileLock.h"
#include "foundation/NSLog.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "foundation/PrivateFiles.h"
#include "foundation/Secrets.h"
#include "sdk/DBError.h"
#include "sdk/credentials/CredentialStore.h"
#include "sdk/wire/ServiceJson.h"

namespace kzv::sdk {

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

/// The outcome of a call, shared with a thread that may be abandoned.
struct Call {
  ObjectRef<GCancellable> cancellable{g_cancellable_new()};
  std::promise<bool> succeeded;
  Credentials found;
  bool isComplete = true;  // false: some items could not be read
};

/// Runs `body` on a thread of its own, because a secret service may hang or wait for a person to unlock it.
/// False when it fails or takes too long; the thread is then abandoned.
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

/// Adds the account stored in `item`, if its secret can be read (a locked item has none).
void collect(SecretRetrievable* item, Call& call) {
  GError* error = nullptr;
  SecretValue* value = secret_retrievable_retrieve_secret_sync(item, call.cancellable.get(), &error);
  const char* text = succeeded(error) && value ? secret_value_get_text(value) : nullptr;
  const auto credential = text ? credentialFromText(text) : std::nullopt;
  if (credential) {
    call.found.push_back(*credential);
  } else {
    call.isComplete = false;
  }
  if (value) secret_value_unref(value);
}

bool answersTrue(GDBusConnection* bus, Call& call, const char* method, GVariant* arguments,
                 const std::function<bool(GVariant*)>& test) {
  GError* error = nullptr;
  GVariant* answer = g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                 "org.freedesktop.DBus", method, arguments, nullptr,
                                                 G_DBUS_CALL_FLAGS_NONE, -1, call.cancellable.get(), &error);
  if (!succeeded(error) || !answer) return false;
  const bool result = test(answer);
  g_variant_unref(answer);
  return result;
}

/// Whether this session has a secret service, running or to be started on demand (D-Bus, "Message Bus
/// Messages"). Without one a failed call does not mean that accounts could not be read.
bool hasSecretService(Call& call) {
  GError* error = nullptr;
  const ObjectRef<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SESSION, call.cancellable.get(), &error));
  if (!succeeded(error) || !bus) return false;
  constexpr const char* service = "org.freedesktop.secrets";
  const auto isOwned = [](GVariant* answer) {
    gboolean owned = FALSE;
    g_variant_get(answer, "(b)", &owned);
    return owned != FALSE;
  };
  const auto isListed = [](GVariant* answer) {
    GVariantIter* names = nullptr;
    g_variant_get(answer, "(as)", &names);
    bool found = false;
    const char* name = nullptr;
    while (g_variant_iter_loop(names, "&s", &name)) found = found || std::string_view(name) == service;
    g_variant_iter_free(names);
    return found;
  };
  return answersTrue(bus.get(), call, "NameHasOwner", g_variant_new("(s)", service), isOwned) ||
         answersTrue(bus.get(), call, "ListActivatableNames", nullptr, isListed);
}

void sortByCreation(GList*& items) {
  items = g_list_sort(items, [](gconstpointer left, gconstpointer right) {
    const auto created = [](gconstpointer item) {
      return secret_retrievable_get_created(SECRET_RETRIEVABLE(const_cast<void*>(item)));
    };
    return created(left) < created(right) ? -1 : created(left) > created(right) ? 1 : 0;
  });
}

bool search(const std::string& name, Call& call) {
  GError* error = nullptr;
  GList* items = secret_password_search_sync(
      schema(),
      static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | SECRET_SEARCH_UNLOCK | SECRET_SEARCH_LOAD_SECRETS),
      call.cancellable.get(), &error, "application", name.c_str(), nullptr);
  if (!succeeded(error)) {
    if (hasSecretService(call)) return false;
    NSLog(NSLogLevel::info, "CredentialStore", "No secret service; tokens are kept in a file.");
    return true;
  }
  sortByCreation(items);  // replacing an item keeps its creation time, so an account keeps its position
  for (GList* item = items; item; item = item->next) collect(SECRET_RETRIEVABLE(item->data), call);
  g_list_free_full(items, g_object_unref);
  return true;
}

/// The error of a failed call.
NSErrorRef unavailable(std::string_view reason) {
  return NSError::withText(DBErrorDomain, DBErrorLocalFile,
                           "the desktop's secret service " + std::string(reason));
}

bool finished(bool outcome, NSErrorRef* error) {
  if (!outcome) setError(error, unavailable("does not answer"));
  return outcome;
}

/// One item of the default collection per account.
class SecretStore final : public CredentialStore {
 public:
  SecretStore(std::string name, std::string lockFile)
      : name_(std::move(name)), lockFile_(std::move(lockFile)) {}

  StoredAccounts load() override {
    const auto call = std::make_shared<Call>();
    if (!runBounded(call, [name = name_](Call& own) { return search(name, own); }))
      return {{}, unavailable("does not answer")};
    StoredAccounts stored{call->found, nullptr};
    if (!call->isComplete) stored.error = unavailable("has a locked or damaged account");
    return stored;
  }

  bool save(const DBCredential& credential, NSErrorRef* error, const IsWanted& isWanted) override {
    return locked(error, [&] {
      if (isWanted && !isWanted()) return failUnwanted(error);
      return store(credential, error);
    });
  }

  bool update(const DBCredential& credential, NSErrorRef* error) override {
    return locked(error, [&] {
      bool isThere = false;
      if (!isStored(credential, isThere, error)) return false;
      return !isThere || store(credential, error);
    });
  }

  bool remove(const std::string& userId, const DBCredential* only, NSErrorRef* error) override {
    return locked(error, [&] {
      bool isThere = true;
      if (only && !isStored(*only, isThere, error)) return false;
      return !isThere || clear(userId, error);
    });
  }

 private:
  /// Longer than any call that is made under the lock.
  static constexpr std::chrono::seconds longestWaitForLock = 2 * (longestCall + longestCancel);

  template <class Change>
  bool locked(NSErrorRef* error, Change change) const {
    if (!makePrivateFolder(deletingLastPathComponent(lockFile_), error)) return false;
    const FileLock lock(lockFile_, longestWaitForLock);
    if (lock.isHeld()) return change();
    setError(error, lock.error());
    return false;
  }

  /// Sets `isThere` to whether the account is stored with this linking. False when that cannot be found out.
  bool isStored(const DBCredential& credential, bool& isThere, NSErrorRef* error) {
    const StoredAccounts stored = load();
    isThere = std::any_of(stored.credentials.begin(), stored.credentials.end(),
                          [&](const DBCredential& other) { return isSameLinking(other, credential); });
    if (!isThere && stored.error) setError(error, stored.error);
    return isThere || !stored.error;
  }

  bool store(const DBCredential& credential, NSErrorRef* error) const {
    const auto body = [name = name_, credential](Call& own) {
      GError* failure = nullptr;
      std::string text = credentialText(credential);
      const SecretScope cleared(text);
      const bool stored = secret_password_store_sync(
          schema(), SECRET_COLLECTION_DEFAULT, ("Dropbox account " + credential.userId).c_str(), text.c_str(),
          own.cancellable.get(), &failure, "application", name.c_str(), "account", credential.userId.c_str(),
          nullptr);
      return succeeded(failure) && stored;
    };
    return finished(runBounded(std::make_shared<Call>(), body), error);
  }

  bool clear(const std::string& userId, NSErrorRef* error) const {
    const auto body = [name = name_, userId](Call& own) {
      GError* failure = nullptr;
      secret_password_clear_sync(schema(), own.cancellable.get(), &failure, "application", name.c_str(),
                                 "account", userId.c_str(), nullptr);
      return succeeded(failure) || !hasSecretService(own);
    };
    return finished(runBounded(std::make_shared<Call>(), body), error);
  }

  const std::string name_;
  const std::string lockFile_;
};

}  // namespace

std::unique_ptr<CredentialStore> makeSecretCredentialStore(const std::string& name,
                                                           const std::string& lockFile) {
  return std::make_unique<SecretStore>(name, lockFile);
}

}  // namespace kzv::sdk
