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

/// A folder that goes with the object.
class ScratchFolder {
 public:
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

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
  void loadedMetadata(DBRestClient&, const MetadataRef& metadata) override;
  void loadMetadataFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void loadedDeltaEntries(DBRestClient&, const std::vector<DBDeltaEntry>& entries, bool reset,
                          const std::string& cursor, bool hasMore) override;
  void loadDeltaFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void loadedAccountInfo(DBRestClient&, const std::shared_ptr<DBAccountInfo>& info) override;
  void loadAccountInfoFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void restClientLoadedRequestToken(DBRestClient&) override;
  void restClientReceivedAuthorization(DBRestClient&) override;
  void restClientLoadedAccessToken(DBRestClient&, const std::string& userId) override;
  void loadAccessTokenFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void loadedFile(DBRestClient&, const std::string& localPath) override;
  void loadFileFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void loadProgress(DBRestClient& client, double fraction, const std::string&) override;
  void loadedThumbnail(DBRestClient&, const std::string& localPath, const MetadataRef& metadata) override;
  void loadThumbnailFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void uploadedFile(DBRestClient&, const std::string& destinationPath, const std::string& localPath,
                    const MetadataRef& metadata) override;
  void uploadFileFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void uploadProgress(DBRestClient& client, double fraction, const std::string&, const std::string&) override;
  void uploadedFileChunk(DBRestClient&, const std::string& uploadId, std::uint64_t newOffset,
                         const std::string& localPath, NSDate::Time expires) override;
  void uploadFileChunkFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void uploadedFileFromUploadId(DBRestClient&, const std::string& destinationPath,
                                const std::string& uploadId, const MetadataRef& metadata) override;
  void uploadFromUploadIdFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void createdFolder(DBRestClient&, const MetadataRef& metadata) override;
  void createFolderFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void deletedPath(DBRestClient&, const std::string& path) override;
  void deletePathFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void movedPath(DBRestClient&, const std::string& fromPath, const MetadataRef& metadata) override;
  void movePathFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void loadedSharableLink(DBRestClient&, const std::string& link, const std::string& path) override;
  void loadSharableLinkFailedWithError(DBRestClient&, const NSErrorRef& error) override;
  void sessionDidReceiveAuthorizationFailure(DBSession& session, const std::string& userId) override;

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

  ScratchFolder home;
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
