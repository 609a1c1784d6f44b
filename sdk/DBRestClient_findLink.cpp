#include <utility>

#include "sdk/DBRestClientImpl.h"
#include "sdk/ServiceJson.h"

namespace json = boost::json;
using servicejson::Document;

namespace {

/// The URL of the first link in the answer; empty without one, nothing when the answer is not understood.
std::optional<std::string> firstLink(const HttpResponse& response) {
  const auto document = Document::parse(response.body);
  const json::array* links = document ? servicejson::array(document->root(), "links") : nullptr;
  if (!links) return std::nullopt;
  if (links->empty()) return std::string();
  const json::object* first = links->front().if_object();
  const auto url = first ? servicejson::text(*first, "url") : std::nullopt;
  return url ? std::optional<std::string>(*url) : std::nullopt;
}

}  // namespace

void DBRestClient::findSharableLinkForFile(const std::string& path) {
  const auto client = impl_;
  const auto operation = client->beginOperation();
  const RequestDescription about{"look for a link to", path};
  const auto fail = [client, operation](const ServiceAnswer& answer) {
    client->fail(operation, answer, [&](DBRestClientDelegate& delegate, DBRestClient& self) {
      delegate.loadSharableLinkFailedWithError(self, answer.error);
    });
  };
  const auto wanted = servicePath(path);
  if (!wanted || wanted->empty()) {
    client->performLater(operation, [fail, about] { fail({{}, unacceptablePathError(about), {}}); });
    return;
  }
  const json::object argument{{"path", *wanted}, {"direct_only", true}};
  client->send(operation, readingRequest("sharing/list_shared_links", argument, about),
               [client, operation, about, fail](ServiceAnswer& answer) {
                 if (answer.error) return fail(answer);
                 const auto url = firstLink(answer.response);
                 if (!url) return fail({{}, invalidResponseError(answer.response, about), {}});
                 client->finish(operation, [&](DBRestClientDelegate& delegate, DBRestClient& self) {
                   delegate.foundSharableLink(self, *url, about.path);
                 });
               });
}
