#include <utility>

#include "sdk/DBRestClientImpl.h"
#include "sdk/ServiceJson.h"

namespace json = boost::json;
using servicejson::Document;

namespace {

/// Makes a public link, or finds the one that there is already.
class LinkLoad : public std::enable_shared_from_this<LinkLoad> {
 public:
  LinkLoad(std::shared_ptr<DBRestClient::Impl> client, const std::string& path)
      : client_(std::move(client)),
        operation_(client_->beginOperation()),
        about_{"get a link to", path},
        path_(servicePath(path)) {}

  void start() {
    if (!path_ || path_->empty()) {
      client_->performLater(operation_, [self = shared_from_this()] {
        self->fail({{}, unacceptablePathError(self->about_), {}});
      });
      return;
    }
    ServiceRequest request =
        readingRequest("sharing/create_shared_link_with_settings", {{"path", *path_}}, about_);
    client_->send(operation_, std::move(request),
                  [self = shared_from_this()](ServiceAnswer& answer) { self->created(answer); });
  }

 private:
  void created(const ServiceAnswer& answer) {
    const auto document = Document::parse(answer.response.body);
    if (!answer.error) {
      const auto url = document ? servicejson::text(document->root(), "url") : std::nullopt;
      return url ? finish(*url) : failInvalid(answer.response);
    }
    if (!hasErrorTag(answer.response, "shared_link_already_exists")) return fail(answer);
    if (const auto url = linkInError(document->root())) return finish(*url);
    const json::object argument{{"path", *path_}, {"direct_only", true}};
    client_->send(operation_, readingRequest("sharing/list_shared_links", argument, about_),
                  [self = shared_from_this()](ServiceAnswer& listed) { self->listed(listed); });
  }

  /// The refusal names the link that exists, unless that has settings of its own.
  static std::optional<std::string_view> linkInError(const json::object& answer) {
    const json::object* error = servicejson::object(answer, "error");
    const json::object* exists = error ? servicejson::object(*error, "shared_link_already_exists") : nullptr;
    const json::object* metadata = exists ? servicejson::object(*exists, "metadata") : nullptr;
    return metadata ? servicejson::text(*metadata, "url") : std::nullopt;
  }

  void listed(const ServiceAnswer& answer) {
    if (answer.error) return fail(answer);
    const auto document = Document::parse(answer.response.body);
    const json::array* links = document ? servicejson::array(document->root(), "links") : nullptr;
    const json::object* first = links && !links->empty() ? links->front().if_object() : nullptr;
    const auto url = first ? servicejson::text(*first, "url") : std::nullopt;
    return url ? finish(*url) : failInvalid(answer.response);
  }

  void finish(std::string_view url) {
    client_->finish(operation_, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadedSharableLink(client, std::string(url), about_.path);
    });
  }

  void fail(const ServiceAnswer& answer) {
    client_->fail(operation_, answer, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadSharableLinkFailedWithError(client, answer.error);
    });
  }

  void failInvalid(const HttpResponse& response) { fail({{}, invalidResponseError(response, about_), {}}); }

  const std::shared_ptr<DBRestClient::Impl> client_;
  const DBRestClient::Impl::OperationRef operation_;
  const RequestDescription about_;
  const std::optional<std::string> path_;
};

}  // namespace

// The service no longer makes short links; the full one is given either way.
void DBRestClient::loadSharableLinkForFile(const std::string& path, bool /*shortUrl*/) {
  std::make_shared<LinkLoad>(impl_, path)->start();
}
