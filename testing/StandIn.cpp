#include "testing/StandIn.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace json = boost::json;
using namespace std::chrono_literals;

namespace {
constexpr const char* adaToken = "ada-token";

json::value parsed(const std::string& route, const HttpClient::Answer& answer) {
  if (answer.status != 200) {
    throw std::runtime_error(route + " answered " + std::to_string(answer.status) + ": " + answer.body);
  }
  return answer.body.empty() ? json::value() : json::parse(answer.body);
}
}  // namespace

StandIn::StandIn(const std::vector<std::string>& arguments) {
  std::vector<std::string> words{KZV_SERVICE_PROGRAM, "--admin"};
  for (const char* account :
       {"Ada:ada@example.com:ada-token", "Bob:bob@example.com:bob-token", "Cid:cid@example.com:cid-token"}) {
    words.insert(words.end(), {"--account", account});
  }
  words.insert(words.end(), arguments.begin(), arguments.end());
  process_ = std::make_unique<ChildProcess>(words);
  const std::string line = process_->readLine(30s).value_or("");
  constexpr std::string_view greeting = "listening on ";
  if (!line.starts_with(greeting)) throw std::runtime_error("the stand-in did not start: " + line);
  url_ = line.substr(greeting.size());
}

StandIn::~StandIn() {
  process_->signal(SIGTERM);
  process_->finish(10s);
}

json::value StandIn::admin(const std::string& route, const json::value& body) {
  return parsed(
      route, http_.post(url_ + "/admin/" + route, json::serialize(body), {"Content-Type: application/json"}));
}

json::value StandIn::call(const std::string& route, const json::value& argument) {
  return parsed(route, http_.post(url_ + "/2/" + route, json::serialize(argument),
                                  {"Content-Type: application/json",
                                   std::string("Authorization: Bearer ") + adaToken}));
}

void StandIn::makeTree(const std::string& path, int folders, int files) {
  admin("tree",
        {{"account", adaToken}, {"path", path}, {"folders", folders}, {"files", files}, {"size", 1000}});
}

void StandIn::write(const std::string& path, const std::string& text) {
  admin("write", {{"account", adaToken}, {"path", path}, {"text", text}});
}

void StandIn::remove(const std::string& path) { admin("delete", {{"account", adaToken}, {"path", path}}); }

void StandIn::move(const std::string& from, const std::string& to) {
  admin("move", {{"account", adaToken}, {"from", from}, {"to", to}});
}

void StandIn::fault(const json::object& rule) { admin("faults", json::array{rule}); }

int StandIn::faultHits() {
  const json::value rules = parsed("faults", http_.get(url_ + "/admin/faults"));
  int hits = 0;
  for (const json::value& rule : rules.as_array()) hits += rule.at("hits").to_number<int>();
  return hits;
}

void StandIn::clearFaults() { http_.remove(url_ + "/admin/faults"); }

void StandIn::settings(const json::object& values) { admin("settings", values); }

std::map<std::string, int> StandIn::requests() {
  const json::value log = parsed("requests", http_.remove(url_ + "/admin/requests"));
  std::map<std::string, int> counts;
  for (const json::value& request : log.as_array()) ++counts[std::string(request.at("route").as_string())];
  return counts;
}

void StandIn::forgetRequests() { http_.remove(url_ + "/admin/requests"); }

std::map<std::string, std::int64_t> StandIn::tree() {
  std::map<std::string, std::int64_t> items;
  json::value page = call("files/list_folder", {{"path", ""}, {"recursive", true}, {"limit", 2000}});
  while (true) {
    for (const json::value& entry : page.at("entries").as_array()) {
      const std::string path(entry.at("path_display").as_string());
      const bool isFolder = entry.at(".tag").as_string() == "folder";
      items[isFolder ? path + "/" : path] = isFolder ? 0 : entry.at("size").to_number<std::int64_t>();
    }
    if (!page.at("has_more").as_bool()) return items;
    page = call("files/list_folder/continue", {{"cursor", page.at("cursor")}});
  }
}

std::string StandIn::content(const std::string& path) {
  const std::string argument = json::serialize(json::object{{"path", path}});
  const auto answer = http_.post(
      url_ + "/2/files/download", "",
      {"Content-Type:", "Dropbox-API-Arg: " + argument, std::string("Authorization: Bearer ") + adaToken});
  if (answer.status != 200) throw std::runtime_error("no content of " + path + ": " + answer.body);
  return answer.body;
}
