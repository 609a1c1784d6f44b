#include "sdk/testing/ClientFixture.h"

#include <cstdlib>

#include "foundation/Paths.h"
#include "foundation/Unicode.h"

namespace kzv::sdk {

namespace {
constexpr std::chrono::seconds patience{20};
}

CallbackThread::CallbackThread() {
  std::promise<std::shared_ptr<NSRunLoop>> loop;
  auto started = loop.get_future();
  thread_ = std::thread([&loop] {
    const auto own = NSRunLoop::currentRunLoop();
    loop.set_value(own);
    own->waitUntilDate(NSRunLoop::Clock::now() + std::chrono::hours(1));
  });
  loop_ = started.get();
}

CallbackThread::~CallbackThread() {
  loop_->stop();
  thread_.join();
}

void CallbackThread::run(std::function<void()> block) {
  std::promise<void> done;
  loop_->perform([&] {
    block();
    done.set_value();
  });
  done.get_future().wait();
}

void NotingDelegate::loadedDeltaEntries(DBRestClient&, const std::vector<DBDeltaEntry>& entries, bool reset,
                                        const std::string& cursor, bool hasMore) {
  std::string text = "delta";
  for (const DBDeltaEntry& entry : entries) {
    text += (entry.metadata ? " +" : " -") + entry.lowercasePath;
    if (entry.metadata) text += "=" + entry.metadata->path();
  }
  note(text + (reset ? " reset" : "") + (hasMore ? " more " : " ") + cursor);
}

void NotingDelegate::loadedAccountInfo(DBRestClient&, const std::shared_ptr<DBAccountInfo>& info) {
  note("account " + info->userId() + " " + info->displayName() + " " + info->email() + " " +
       std::to_string(info->quota().totalConsumedBytes) + "/" + std::to_string(info->quota().totalBytes));
}

void NotingDelegate::noteRecord(const std::string& text, const MetadataRef& metadata) {
  {
    const std::lock_guard lock(mutex_);
    metadata_ = metadata;
  }
  note(text);
}

void NotingDelegate::noteProgress(DBRestClient& client, double fraction) {
  {
    const std::lock_guard lock(mutex_);
    fractions_.push_back(fraction);
    changed_.notify_all();
  }
  if (!stopsAtFirstProgress_) return;
  client.cancelAllRequests();
  note("stopped");
}

std::vector<double> NotingDelegate::fractions() const {
  const std::lock_guard lock(mutex_);
  return fractions_;
}

void NotingDelegate::note(std::string text) {
  const std::lock_guard lock(mutex_);
  notes_.push_back(std::move(text));
  changed_.notify_all();
}

void NotingDelegate::noteError(const NSErrorRef& error) {
  {
    const std::lock_guard lock(mutex_);
    error_ = error;
  }
  note("error " + std::to_string(error->code()));
}

std::vector<std::string> NotingDelegate::wait(std::size_t number) {
  std::unique_lock lock(mutex_);
  changed_.wait_until(lock, std::chrono::steady_clock::now() + patience,
                      [&] { return notes_.size() >= number; });
  return notes_;
}

std::vector<std::string> NotingDelegate::notes() const {
  const std::lock_guard lock(mutex_);
  return notes_;
}

DBRestClientDelegate::MetadataRef NotingDelegate::lastMetadata() const {
  const std::lock_guard lock(mutex_);
  return metadata_;
}

NSErrorRef NotingDelegate::lastError() const {
  const std::lock_guard lock(mutex_);
  return error_;
}

std::shared_ptr<void> ClientFixture::serve(ScriptedServer::Handler handler) {
  server = std::make_unique<ScriptedServer>(std::move(handler));
  ::setenv("KZV_HOME", home.path().c_str(), 1);
  ::setenv("KZV_TOKEN_STORE", "file", 1);
  ::setenv("KZV_SERVICE_URL", server->url().c_str(), 1);
  session = std::make_shared<DBSession>("key", "", kDBRootDropbox);
  session->setDelegate(&delegate);
  link({userId, "token-1", "refresh-1", 0});
  client = makeClient();
  return {nullptr, [this](void*) { server.reset(); }};
}

void ClientFixture::link(const DBCredential& credential) {
  NSErrorRef error;
  ASSERT_TRUE(session->linkCredential(credential, &error)) << error->localizedDescription();
}

std::shared_ptr<DBRestClient> ClientFixture::makeClient(std::optional<std::string> forUser) {
  auto made = std::make_shared<DBRestClient>(session, std::move(forUser));
  made->setDelegate(&delegate);
  return made;
}

void ClientFixture::loadMetadata(const std::string& path) {
  callbacks.run([&] { client->loadMetadata(path); });
}

std::string ClientFixture::outcomeOf(const std::string& path) {
  return outcome([&](DBRestClient& own) { own.loadMetadata(path); });
}

std::string ClientFixture::outcome(const std::function<void(DBRestClient&)>& request) {
  const std::size_t before = delegate.notes().size();
  callbacks.run([&] { request(*client); });
  const auto notes = delegate.wait(before + 1);
  return notes.size() > before ? notes[before] : "nothing came";
}

void ClientFixture::TearDown() {
  callbacks.run([&] { client.reset(); });
  if (session) session->waitForBackgroundWork(20);
}

namespace {
std::string commonJson(const std::string& path) {
  return R"("name":")" + lastPathComponent(path) + R"(","path_lower":")" + caselessKey(path) +
         R"(","path_display":")" + path + R"(","id":"id:a")";
}
}  // namespace

std::string fileJson(const std::string& path, const std::string& rev, long size) {
  return R"({".tag":"file",)" + commonJson(path) + R"(,"rev":")" + rev + R"(","size":)" +
         std::to_string(size) +
         R"(,"client_modified":"2024-05-01T09:30:00Z","server_modified":"2024-05-01T09:31:12Z"})";
}

std::string folderJson(const std::string& path) { return R"({".tag":"folder",)" + commonJson(path) + "}"; }

std::string pageJson(const std::string& entries, const std::string& cursor, bool hasMore) {
  return R"({"entries":[)" + entries + R"(],"cursor":")" + cursor + R"(","has_more":)" +
         (hasMore ? "true" : "false") + "}";
}

ScriptedReply jsonReply(std::string body, int status) {
  return {status, std::move(body), {"Content-Type: application/json"}};
}

ScriptedReply errorReply(int status, const std::vector<std::string>& tags) {
  std::string error, summary;
  for (auto tag = tags.rbegin(); tag != tags.rend(); ++tag) {
    error = R"({".tag":")" + *tag + "\"" + (error.empty() ? "" : ",\"" + *tag + "\":" + error) + "}";
    summary = *tag + "/" + summary;
  }
  return jsonReply(R"({"error_summary":")" + summary + R"(..","error":)" + error + "}", status);
}

}  // namespace kzv::sdk
