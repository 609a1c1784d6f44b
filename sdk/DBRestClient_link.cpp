#include <utility>

#include "sdk/DBRestClientImpl.h"
#include "sdk/DBSharedLink.h"
#include "sdk/ServiceJson.h"

namespace json = boost::json;
using servicejson::Document;

namespace {

/// The member of a link's permissions that the union `key` names; empty without one.
std::string_view permission(const json::object& permissions, std::string_view key) {
  const json::value* value = permissions.if_contains(key);
  return value ? servicejson::tag(*value) : std::string_view();
}

/// Who can open a link: the visibility that results from its own settings and those above it or, where the
/// service tells it in the newer form, the effective audience.
std::string_view audienceOf(const json::object& link) {
  const json::object* permissions = servicejson::object(link, "link_permissions");
  if (!permissions) return {};
  std::string_view audience = permission(*permissions, "resolved_visibility");
  if (audience.empty()) audience = permission(*permissions, "effective_audience");
  const bool needsPassword = servicejson::boolean(*permissions, "require_password").value_or(false);
  return needsPassword && audience == "public" ? "password" : audience;
}

std::shared_ptr<DBSharedLink> sharedLink(const json::object* link) {
  const auto url = link ? servicejson::text(*link, "url") : std::nullopt;
  if (!url) return nullptr;
  return std::make_shared<DBSharedLink>(std::string(*url), std::string(audienceOf(*link)));
}

/// Makes a link, or finds the one that there is already.
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
      const auto link = sharedLink(document ? &document->root() : nullptr);
      return link ? finish(link) : failInvalid(answer.response);
    }
    if (!hasErrorTag(answer.response, "shared_link_already_exists")) return fail(answer);
    if (const auto link = sharedLink(linkInError(document->root()))) return finish(link);
    const json::object argument{{"path", *path_}, {"direct_only", true}};
    client_->send(operation_, readingRequest("sharing/list_shared_links", argument, about_),
                  [self = shared_from_this()](ServiceAnswer& listed) { self->listed(listed); });
  }

  /// The refusal names the link that exists, unless that has settings of its own.
  static const json::object* linkInError(const json::object& answer) {
    const json::object* error = servicejson::object(answer, "error");
    const json::object* exists = error ? servicejson::object(*error, "shared_link_already_exists") : nullptr;
    return exists ? servicejson::object(*exists, "metadata") : nullptr;
  }

  void listed(const ServiceAnswer& answer) {
    if (answer.error) return fail(answer);
    const auto document = Document::parse(answer.response.body);
    const json::array* links = document ? servicejson::array(document->root(), "links") : nullptr;
    const auto link = sharedLink(links && !links->empty() ? links->front().if_object() : nullptr);
    return link ? finish(link) : failInvalid(answer.response);
  }

  void finish(const std::shared_ptr<DBSharedLink>& link) {
    client_->finish(operation_, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadedSharableLink(client, link, about_.path);
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
