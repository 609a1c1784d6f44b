#pragma once
#include <boost/json.hpp>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/HttpClient.h"

/// The local stand-in of the service as a child process, with its admin routes as calls. Every call blocks
/// and throws when the stand-in does not answer as it should. One thread at a time.
class StandIn {
 public:
  /// Accounts "Ada" (token "ada-token"), "Bob" and "Cid", all empty, unless `arguments` says more.
  explicit StandIn(const std::vector<std::string>& arguments = {});
  ~StandIn();

  const std::string& url() const noexcept { return url_; }

  /// Makes `folders` sub-folders with `files` files each below `path`; with no folders the files lie in
  /// `path` itself.
  void makeTree(const std::string& path, int folders, int files);
  // Changes by another device, in Ada's account.
  void write(const std::string& path, const std::string& text);
  void remove(const std::string& path);
  void move(const std::string& from, const std::string& to);

  /// Orders failures: {"route":…,"times":…,…}, see the program's help.
  void fault(const boost::json::object& rule);
  /// How often the ordered failures were carried out, over all rules.
  int faultHits();
  void clearFaults();
  void settings(const boost::json::object& values);

  /// Routes asked for since the last call of this or forgetRequests, each with how often.
  std::map<std::string, int> requests();
  void forgetRequests();

  /// Ada's whole tree as the service itself lists it, asked page by page without the client layer: display
  /// path (with a slash at the end for folders) -> size in bytes.
  std::map<std::string, std::int64_t> tree();
  /// The bytes of a file of Ada's as the service has them.
  std::string content(const std::string& path);

 private:
  boost::json::value admin(const std::string& route, const boost::json::value& body);
  boost::json::value call(const std::string& route, const boost::json::value& argument);

  std::unique_ptr<ChildProcess> process_;
  std::string url_;
  HttpClient http_;
};
