#pragma once
#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/NSRunLoop.h"
#include "sdk/DBRestClient.h"
#include "sdk/testing/ScriptedServer.h"
#include "testing/TemporaryFolder.h"

namespace kzv::sdk {

/// A thread with a running run loop, as the client's callbacks need one.
class CallbackThread {
 public:
  CallbackThread();
  ~CallbackThread();
  /// Runs `block` there and waits for it.
  void run(std::function<void()> block);

 private:
  std::shared_ptr<NSRunLoop> loop_;
  std::thread thread_;
};

/// Notes what the client and the session tell, each as one line: "metadata /a", "error 404".
class NotingDelegate : public DBRestClientDelegate, public DBSessionDelegate {
 public:
  using Client = DBRestClient;
  using Text = std::string;
  using Error = NSErrorRef;
  void requestSucceeded(Client&, const id& result) override { note("finished " + result->description()); }
  void requestFailedWithError(Client&, const Error& error) override { noteError(error); }
  void loadedMetadata(Client&, const MetadataRef& m) override { noteRecord("metadata " + m->path(), m); }
  void loadedDeltaEntries(Client&, const std::vector<DBDeltaEntry>& entries, bool reset, const Text& cursor,
                          bool hasMore) override;
  void waitedForChanges(Client&, bool changes, std::chrono::seconds backoff) override {
    note((changes ? "changes " : "no changes ") + std::to_string(backoff.count()));
  }
  void loadedAccountInfo(Client&, const std::shared_ptr<DBAccountInfo>& info) override;
  void restClientLoadedRequestToken(Client&) override { note("sign-in begun"); }
  void restClientReceivedAuthorization(Client&) override { note("answer came"); }
  void restClientLoadedAccessToken(Client&, const Text& userId) override { note("linked " + userId); }
  void loadedFile(Client&, const Text& localPath, const MetadataRef& m) override {
    noteRecord("file " + localPath, m);
  }
  void loadProgress(Client& client, double part, const Text&) override { noteProgress(client, part); }
  void loadedThumbnail(Client&, const Text& localPath, const MetadataRef& m) override {
    noteRecord("thumbnail " + localPath, m);
  }
  void uploadedFile(Client&, const Text& to, const Text&, const MetadataRef& m) override {
    noteRecord("uploaded " + to + " as " + m->path(), m);
  }
  void uploadProgress(Client& client, double part, const Text&, const Text&) override {
    noteProgress(client, part);
  }
  void uploadedFileChunk(Client&, const Text& uploadId, std::uint64_t offset, const Text&,
                         NSDate::Time) override {
    note("chunk " + uploadId + " " + std::to_string(offset));
  }
  void uploadedFileFromUploadId(Client&, const Text& to, const Text& uploadId,
                                const MetadataRef& m) override {
    noteRecord("committed " + uploadId + " " + to + " as " + m->path(), m);
  }
  void createdFolder(Client&, const MetadataRef& m) override { noteRecord("created " + m->path(), m); }
  void deletedPath(Client&, const Text& path) override { note("deleted " + path); }
  void movedPath(Client&, const Text& from, const MetadataRef& m) override {
    noteRecord("moved " + from + " to " + m->path(), m);
  }
  void loadedSharableLink(Client&, const std::shared_ptr<DBSharedLink>& link, const Text& path) override {
    note("link " + path + " " + link->url() + " " + link->audience());
  }
  void sessionDidReceiveAuthorizationFailure(DBSession&, const Text& userId) override {
    note("authorization failure " + userId);
  }

  /// The first `number` notes; fewer when the rest does not come within some seconds.
  std::vector<std::string> wait(std::size_t number);
  std::vector<std::string> notes() const;
  MetadataRef lastMetadata() const;
  NSErrorRef lastError() const;
  /// The progress reports so far.
  std::vector<double> fractions() const;
  /// The first progress report cancels the client's requests.
  void stopAtFirstProgress() { stopsAtFirstProgress_ = true; }

 private:
  void note(std::string text);
  void noteError(const NSErrorRef& error);
  void noteRecord(const std::string& text, const MetadataRef& metadata);
  void noteProgress(DBRestClient& client, double fraction);

  std::atomic<bool> stopsAtFirstProgress_{false};
  std::vector<double> fractions_;  // guarded by mutex_
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> notes_;  // guarded by mutex_
  MetadataRef metadata_;            // guarded by mutex_
  NSErrorRef error_;                // guarded by mutex_
};

/// A session with one linked account ("u1") against a scripted server, its store in a scratch folder.
class ClientFixture : public ::testing::Test {
 protected:
  static constexpr const char* userId = "u1";
  /// Starts the server; replies are the handler's. Call once. The server ends with what is returned, so that
  /// a handler may use what the test declared before.
  [[nodiscard]] std::shared_ptr<void> serve(ScriptedServer::Handler handler);
  void link(const DBCredential& credential);
  std::shared_ptr<DBRestClient> makeClient(std::optional<std::string> forUser = userId);
  void loadMetadata(const std::string& path);
  /// The line of the only outcome of loading `path`.
  std::string outcomeOf(const std::string& path);
  /// The line that comes after `request` has been carried out on the thread of the callbacks.
  std::string outcome(const std::function<void(DBRestClient&)>& request);
  void TearDown() override;

  TemporaryFolder home;
  std::unique_ptr<ScriptedServer> server;
  std::shared_ptr<DBSession> session;
  NotingDelegate delegate;
  CallbackThread callbacks;
  std::shared_ptr<DBRestClient> client;
};

/// JSON of the service for tests.
std::string fileJson(const std::string& path, const std::string& rev = "015f00aa11bb2cc", long size = 3);
std::string folderJson(const std::string& path);
std::string pageJson(const std::string& entries, const std::string& cursor = "c1", bool hasMore = false);
ScriptedReply jsonReply(std::string body, int status = 200);
/// A 409 (or other) error whose union is `tags`, outermost first.
ScriptedReply errorReply(int status, const std::vector<std::string>& tags);

}  // namespace kzv::sdk
