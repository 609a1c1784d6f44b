#include "standin/ServiceTestClient.h"

#include <algorithm>
#include <boost/json.hpp>
#include <cstring>
#include <stdexcept>

#include <curl/curl.h>

namespace kzv::standin::testing {
namespace {

namespace json = boost::json;

struct Outgoing {
  std::string_view rest;
  std::size_t pieceBytes = 0;
};

std::size_t takeBody(char* data, std::size_t size, std::size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

std::size_t takeHeader(char* data, std::size_t size, std::size_t count, void* target) {
  const std::string_view line(data, size * count);
  auto& headers = *static_cast<std::map<std::string, std::string>*>(target);
  if (line.substr(0, 5) == "HTTP/") headers.clear();  // those of "100 Continue"
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return size * count;
  std::string name(line.substr(0, colon));
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  std::string_view value = line.substr(colon + 1);
  value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
  value = value.substr(0, value.find_last_not_of("\r\n") + 1);
  headers[name] = value;
  return size * count;
}

std::size_t giveBody(char* data, std::size_t size, std::size_t count, void* source) {
  auto& out = *static_cast<Outgoing*>(source);
  const std::size_t bytes = std::min({size * count, out.rest.size(), out.pieceBytes});
  std::memcpy(data, out.rest.data(), bytes);
  out.rest.remove_prefix(bytes);
  return bytes;
}

}  // namespace

json::value Answer::json() const {
  json::error_code problem;
  json::value value = json::parse(body, problem);
  return problem ? json::value() : value;
}

std::string Answer::errorTags() const {
  const json::value parsed = json();
  const json::object* object = parsed.if_object();
  const json::value* value = object ? object->if_contains("error") : nullptr;
  std::string tags;
  while (value && value->is_object() && value->get_object().contains(".tag")) {
    const json::object& tagged = value->get_object();
    const std::string tag(tagged.at(".tag").as_string());
    tags += (tags.empty() ? "" : "/") + tag;
    value = tagged.if_contains(tag);
    if (!value) value = tagged.if_contains("reason");  // the one struct among them, of upload
  }
  return tags;
}

TestService::TestService(ServiceOptions options, bool admin) {
  options.admin = admin;
  if (options.accounts.empty()) {
    options.accounts = {{"Ann Example", "ann@example.com", kToken},
                        {"Bob Example", "bob@example.com", kOtherToken}};
  }
  service_ = std::make_unique<Service>(options);
  std::string error;
  const auto port = service_->start(error);
  if (!port) throw std::runtime_error(error);
  port_ = *port;
}

Answer TestService::send(const HttpCall& call) const {
  CURL* curl = curl_easy_init();
  Answer answer;
  curl_slist* headers = nullptr;
  for (const auto& header : call.headers) headers = curl_slist_append(headers, header.c_str());
  Outgoing out{call.body, call.chunkBytes};
  const std::string url = "http://127.0.0.1:" + std::to_string(port_) + call.target;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, call.method.c_str());
  if (call.chunkBytes > 0) {
    headers = curl_slist_append(headers, "Transfer-Encoding: chunked");
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, giveBody);
    curl_easy_setopt(curl, CURLOPT_READDATA, &out);
  } else if (call.method == "POST") {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(call.body.size()));
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, call.body.data());
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, takeBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, takeHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &answer.headers);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, call.timeoutMs);
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  answer.curlResult = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  return answer;
}

Answer TestService::rpc(const std::string& route, const std::string& argument,
                        const std::string& token) const {
  HttpCall call{.target = "/2/" + route, .headers = {"Content-Type: application/json"}, .body = argument};
  if (!token.empty()) call.headers.push_back("Authorization: Bearer " + token);
  return send(call);
}

Answer TestService::upload(const std::string& route, const std::string& argument, const std::string& body,
                           const std::string& token) const {
  return send({.target = "/2/" + route,
               .headers = {"Content-Type: application/octet-stream", "Authorization: Bearer " + token,
                           "Dropbox-API-Arg: " + argument},
               .body = body});
}

Answer TestService::download(const std::string& argument, std::vector<std::string> headers) const {
  headers.insert(headers.end(), {std::string("Authorization: Bearer ") + kToken,
                                 "Dropbox-API-Arg: " + argument, "Content-Type:"});
  return send({.target = "/2/files/download", .headers = std::move(headers)});
}

json::value TestService::admin(const std::string& method, const std::string& route,
                               const std::string& body) const {
  const Answer answer = send({.method = method,
                              .target = "/admin/" + route,
                              .headers = {"Content-Type: application/json"},
                              .body = body});
  if (answer.status != 200) {
    throw std::runtime_error(method + " " + route + ": " + std::to_string(answer.status) + " " + answer.body);
  }
  return answer.json();
}

json::value TestService::metadata(const std::string& path) const {
  return rpc("files/get_metadata", object("path", path)).json();
}

void TestService::write(const std::string& path, const std::string& text) const {
  admin("POST", "write", json::serialize(json::object{{"account", kToken}, {"path", path}, {"text", text}}));
}

std::vector<std::int64_t> TestService::faultHits() const {
  std::vector<std::int64_t> hits;
  const json::value rules = admin("GET", "faults");
  for (const auto& rule : rules.as_array()) hits.push_back(rule.at("hits").as_int64());
  return hits;
}

std::string object(const std::string& name, const std::string& value) {
  return json::serialize(json::object{{name, value}});
}

std::string at(const json::value& value, const std::string& place) {
  const json::value* found = &value;
  for (std::size_t from = 0; found && from <= place.size();) {
    // A leading dot belongs to the key ".tag".
    const auto end = std::min(place.find('.', from + 1), place.size());
    const std::string key = place.substr(from, end - from);
    if (const auto* object = found->if_object()) {
      found = object->if_contains(key);
    } else if (const auto* array = found->if_array()) {
      const std::size_t index = std::stoul(key);
      found = index < array->size() ? &(*array)[index] : nullptr;
    } else {
      found = nullptr;
    }
    from = end + 1;
  }
  if (!found) return {};
  return found->is_string() ? std::string(found->get_string()) : json::serialize(*found);
}

}  // namespace kzv::standin::testing
