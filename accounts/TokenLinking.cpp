#include "accounts/TokenLinking.h"

#include <future>

#include "filemanager/KZVDropboxFileManager.h"
#include "foundation/Fatal.h"
#include "sdk/DBRestClient.h"
#include "support/KZVDropboxFSSupport.h"

namespace {

struct Outcome {
  std::optional<std::string> userId;
  NSErrorRef error;
};

class OutcomeDelegate final : public DBRestClientDelegate {
 public:
  std::future<Outcome> outcome() { return promise_.get_future(); }
  void restClientLoadedAccessToken(DBRestClient& /*client*/, const std::string& userId) override {
    promise_.set_value({userId, nullptr});
  }
  void loadAccessTokenFailedWithError(DBRestClient& /*client*/, const NSErrorRef& error) override {
    promise_.set_value({std::nullopt, error});
  }

 private:
  std::promise<Outcome> promise_;
};

}  // namespace

std::optional<std::string> linkWithToken(const std::string& token, NSErrorRef* error) {
  const auto thread = required(KZVDropboxFileManager::dropboxThread(), "the service thread runs");
  OutcomeDelegate delegate;
  auto answer = delegate.outcome();
  auto client = std::make_shared<DBRestClient>(
      required(DBSession::sharedSession(), "a shared session is installed"), std::nullopt);
  client->setDelegate(&delegate);
  KZVDropboxFSSupport::performBlockInBackground([client, token] { client->adoptAccessToken(token); },
                                                *thread);
  const Outcome outcome = answer.get();
  // The client is destroyed on the thread of its callbacks, since the last one may still be returning.
  KZVDropboxFSSupport::performBlockInBackgroundAndWait([&client] { client.reset(); }, *thread);
  if (!outcome.userId) setError(error, outcome.error);
  return outcome.userId;
}
