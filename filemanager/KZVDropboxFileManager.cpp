#include "filemanager/KZVDropboxFileManager.h"

#include "core/KZVConstants.h"
#include "core/synced.h"
#include "filemanager/RequestKeys.h"
#include "foundation/Fatal.h"
#include "foundation/NSCondition.h"
#include "support/AssociatedObjects.h"
#include "support/KZVDropboxFSSupport.h"

namespace {

/// A progress callback as an object, so that it can hang on a client.
struct BoxedProgress final : NSObject {
  explicit BoxedProgress(ProgressCallback progress) : callback(std::move(progress)) {}
  const ProgressCallback callback;
};

std::shared_ptr<DBRestClient> newClient(const std::string& userId) {
  return std::make_shared<DBRestClient>(required(DBSession::sharedSession(), "a shared session is installed"),
                                        userId);
}

}  // namespace

KZVDropboxFileManager::KZVDropboxFileManager(Private, std::string accountId)
    : userId(std::move(accountId)),
      mainClient(newClient(userId)),
      deltaClient(newClient(userId)),
      metaCache(std::make_shared<MetadataCache>()) {}

std::shared_ptr<KZVDropboxFileManager> KZVDropboxFileManager::initWithUserId(const std::string& userId) {
  return std::make_shared<KZVDropboxFileManager>(Private{}, userId);
}

KZVDropboxFileManager::~KZVDropboxFileManager() {
  // Callbacks run on the service thread and hold no reference to this object: silence the clients there,
  // where none of them can be under way. Requests still running are those of an account unlinked while its
  // caller waited.
  KZVDropboxFSSupport::performBlockInBackgroundAndWait(
      [this] {
        for (const ClientRef& client : {mainClient, deltaClient}) {
          client->setDelegate(nullptr);
          client->cancelAllRequests();
        }
      },
      *required(dropboxThread(), "the service thread runs"));
}

KZVDropboxFileManager::ClientRef KZVDropboxFileManager::prepare(ClientRef client) {
  if (!client) client = newClient(userId);
  auto condition = std::make_shared<NSCondition>();
  condition->lock();  // given up by wait: until then no callback can signal, so none can be missed
  setObj(*client, std::move(condition), KZVDFMLockKey());
  setObj(*client, nullptr, KZVDFMRezultKey());
  setObj(*client, nullptr, KZVDFMErrorKey());
  client->setDelegate(this);
  return client;
}

void KZVDropboxFileManager::start(const ClientRef& client, std::function<void(DBRestClient&)> request) {
  if (!isLinked()) {
    // Nothing can be asked for: without the condition wait returns at once. Posting all the same would bury
    // the service thread under the calls of a host that keeps asking.
    if (const auto condition = as<NSCondition>(objForKey(*client, KZVDFMLockKey()))) condition->unlock();
    setObj(*client, nullptr, KZVDFMLockKey());
    return;
  }
  KZVDropboxFSSupport::performBlockInBackground(
      [client, request = std::move(request)] {
        client->cancelAllRequests();  // what an unlinked account's caller left running must not answer this
                                      // request
        request(*client);
      },
      *required(dropboxThread(), "the service thread runs"));
}

void KZVDropboxFileManager::finish(DBRestClient& client, id result, const NSErrorRef& error) {
  const auto condition = as<NSCondition>(objForKey(client, KZVDFMLockKey()));
  if (!condition) return;  // belongs to no waiting request
  if (result) setObj(client, std::move(result), KZVDFMRezultKey());
  if (error) setObj(client, error, KZVDFMErrorKey());
  const std::lock_guard lock(*condition);
  condition->signal();
}

bool KZVDropboxFileManager::isLinked() const {
  return required(DBSession::sharedSession(), "a shared session is installed")->hasUserId(userId);
}

id KZVDropboxFileManager::wait(DBRestClient& client, NSErrorRef* error) {
  const bool isLinked =
      required(DBSession::sharedSession(), "a shared session is installed")->hasUserId(userId);
  const auto condition = as<NSCondition>(objForKey(client, KZVDFMLockKey()));
  if (!condition) return nullptr;
  if (!isLinked) {
    condition->unlock();
    return nullptr;
  }
  condition->wait();  // once and without a predicate, on purpose: each request signals exactly once
  condition->unlock();
  if (id result = objForKey(client, KZVDFMRezultKey())) return result;
  if (auto reason = as<NSError>(objForKey(client, KZVDFMErrorKey()))) setError(error, std::move(reason));
  return nullptr;
}

id KZVDropboxFileManager::requestOnMainClient(std::function<void(DBRestClient&)> request, NSErrorRef* error) {
  return synced(*mainClient, [&] {
    const ClientRef client = prepare(mainClient);
    start(client, std::move(request));
    return wait(*client, error);
  });
}

id KZVDropboxFileManager::requestOnFreshClient(ProgressCallback progress,
                                               std::function<void(DBRestClient&)> request,
                                               NSErrorRef* error) {
  ClientRef client = prepare(nullptr);
  setObj(*client, std::make_shared<BoxedProgress>(std::move(progress)), KZVDFMProgressKey());
  start(client, std::move(request));
  const id result = wait(*client, error);
  // The client ends where its callbacks run: one of them may still be on its way out, or, when the account
  // was unlinked meanwhile, yet to come.
  KZVDropboxFSSupport::performBlockInBackground([client = std::move(client)]() mutable { client.reset(); },
                                                *required(dropboxThread(), "the service thread runs"));
  return result;
}

void KZVDropboxFileManager::reportProgress(DBRestClient& client, double fraction) {
  const auto progress = as<BoxedProgress>(objForKey(client, KZVDFMProgressKey()));
  if (!progress || !progress->callback) return;
  if (progress->callback({static_cast<std::uint64_t>(fraction * 1000.0), 1000})) return;
  client.cancelAllRequests();
  finish(client, nullptr, std::make_shared<NSError>(std::string(CanceledByUserErrorDomain), -1));
}
