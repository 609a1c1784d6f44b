#include "filemanager/KZVDropboxFileManager.h"

#include "core/StoppableCall.h"
#include "core/synced.h"
#include "filemanager/RequestKeys.h"
#include "foundation/Fatal.h"
#include "foundation/NSCondition.h"
#include "foundation/NSRunLoop.h"
#include "support/AssociatedObjects.h"
#include "support/KZVDropboxFSSupport.h"

namespace {

/// The progress callback of one call as an object, so that it can hang on the call's client.
class BoxedProgress final : public NSObject {
 public:
  explicit BoxedProgress(ProgressCallback progress) : callback_(std::move(progress)) {}

  /// @param fraction  nothing: the same as the last time.
  /// @return whether to go on. On the service thread.
  bool tell(std::optional<double> fraction) {
    const std::lock_guard lock(mutex_);
    if (fraction) thousandths_ = static_cast<std::uint64_t>(*fraction * 1000.0);
    if (!callback_ || callback_({thousandths_, 1000})) return true;
    callback_ = nullptr;  // once is enough
    return false;
  }
  /// The callback does not run any more: its owner returns to whoever gave it. Any thread; waits for one
  /// under way.
  void close() {
    const std::lock_guard lock(mutex_);
    callback_ = nullptr;
  }
  bool isClosed() {
    const std::lock_guard lock(mutex_);
    return !callback_;
  }

 private:
  std::mutex mutex_;
  ProgressCallback callback_;      // guarded by mutex_
  std::uint64_t thousandths_ = 0;  // guarded by mutex_
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
        changeWatcher_.reset();
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

void KZVDropboxFileManager::requestSucceeded(DBRestClient& client, const id& result) {
  finish(client, result, nullptr);
}

void KZVDropboxFileManager::requestFailedWithError(DBRestClient& client, const NSErrorRef& error) {
  finish(client, nullptr, error);
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
  const auto box = std::make_shared<BoxedProgress>(std::move(progress));
  setObj(*client, box, KZVDFMProgressKey());
  start(client, [request = std::move(request)](DBRestClient& started) {
    request(started);
    keepReporting(started.weak_from_this());
  });
  id result = wait(*client, error);
  box->close();
  // The client ends where its callbacks run: one of them may still be on its way out, or, when the account
  // was unlinked meanwhile, yet to come.
  KZVDropboxFSSupport::performBlockInBackground([client = std::move(client)]() mutable { client.reset(); },
                                                *required(dropboxThread(), "the service thread runs"));
  return result;
}

void KZVDropboxFileManager::reportProgress(DBRestClient& client, std::optional<double> fraction) {
  const auto progress = as<BoxedProgress>(objForKey(client, KZVDFMProgressKey()));
  if (!progress || progress->tell(fraction)) return;
  client.cancelAllRequests();
  finish(client, nullptr, stoppedByUser());
}

void KZVDropboxFileManager::keepReporting(const std::weak_ptr<DBRestClient>& client) {
  const auto report = [client](NSTimer& /*timer*/) {
    const ClientRef running = client.lock();
    const auto progress = running ? as<BoxedProgress>(objForKey(*running, KZVDFMProgressKey())) : nullptr;
    if (!progress || progress->isClosed()) return;
    reportProgress(*running, std::nullopt);
    keepReporting(client);
  };
  dropboxThread()->runLoop()->addTimer(std::make_shared<NSTimer>(stopInterval, report, false));
}
