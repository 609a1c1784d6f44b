#pragma once
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kzv::sdk {

/// One request as the server got it; header names in lower case.
struct ScriptedRequest {
  std::string route;  // "/2/files/get_metadata"
  std::map<std::string, std::string> headers;
  std::string body;
};

/// What the server does with one request.
struct ScriptedReply {
  int status = 200;
  std::string body{};
  std::vector<std::string> headers{};     // "Name: value"
  std::optional<std::size_t> cutAfter{};  // send so many bytes of the body, then break the connection
  bool cutBeforeAnswer = false;
  bool stall = false;      // never answer
  bool isEndless = false;  // tell no length, and send the body again and again (256 MiB at most)
};

/// An HTTP server on the loopback interface that answers as a test tells it to, and misbehaves on request.
/// Handlers run on the server's threads, one call at a time.
class ScriptedServer {
 public:
  using Handler = std::function<ScriptedReply(const ScriptedRequest&)>;
  explicit ScriptedServer(Handler handler);
  ~ScriptedServer();

  std::string url() const;
  /// How many requests of this route have come in.
  int count(const std::string& route) const;
  std::vector<ScriptedRequest> requests() const;
  /// Bytes of endless bodies that went out.
  std::size_t endlessBytes() const;
  /// False when fewer than `number` requests of the route have come within some seconds.
  bool waitForRequests(const std::string& route, int number) const;
  /// Until no connection is open, at most some seconds: how a client's abort is seen from here.
  bool waitForDisconnect(std::chrono::milliseconds limit) const;

 private:
  void acceptConnections();
  void serve(int connection);
  bool reply(int connection, const ScriptedRequest& request);
  void sendEndlessly(int connection, const std::string& body);

  const Handler handler_;
  int listener_ = -1;
  int port_ = 0;
  mutable std::mutex mutex_;
  std::mutex handlerMutex_;
  mutable std::condition_variable changed_;
  bool stopped_ = false;                        // guarded by mutex_
  std::vector<ScriptedRequest> requests_;       // guarded by mutex_
  std::size_t endlessBytes_ = 0;                // guarded by mutex_
  std::set<int> connections_;                   // guarded by mutex_
  std::vector<std::thread> connectionThreads_;  // guarded by mutex_
  std::thread acceptThread_;
};

}  // namespace kzv::sdk
