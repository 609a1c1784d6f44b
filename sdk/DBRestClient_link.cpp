#include <boost/json.hpp>
#include <utility>

#include "sdk/ClientInternals.h"
#include "sdk/DBSharedLink.h"
#include "sdk/wire/ServiceJson.h"

using namespace kzv::sdk;

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

/// The first link of a list; null when the list is empty or not understood.
const json::object* firstLink(const json::object& answer) {
  const json::array* links = servicejson::array(answer, "links");
  return links && !links->empty() ? links->front().if_object() : nullptr;
}

class LinkOperation : public ClientOperation {
 protected:
  LinkOperation(ImplRef client, std::string action, const std::string& path)
      : ClientOperation(std::move(client), {std::move(action), path}), path_(servicePath(path)) {}

  bool isLinkable() const { return path_ && !path_->empty(); }
  ServiceRequest listRequest() const {
    return readingRequest("sharing/list_shared_links", {{"path", *path_}, {"direct_only", true}}, about_);
  }
  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.loadSharableLinkFailedWithError(client, error);
  }

  const std::optional<std::string> path_;
};

/// Makes a link, or finds the one that exists.
class LinkLoad final : public LinkOperation {
 public:
  LinkLoad(ImplRef client, const std::string& path)
      : LinkOperation(std::move(client), "get a link to", path) {}

  void start() {
    if (!isLinkable()) return failLater(unacceptablePathError(about_));
    send(readingRequest("sharing/create_shared_link_with_settings", {{"path", *path_}}, about_),
         &LinkLoad::created);
  }

 private:
  void created(const ServiceAnswer& answer) {
    const auto document = Document::parse(answer.response.body);
    if (!answer.error) return finishWith(sharedLink(document ? &document->root() : nullptr), answer);
    if (!hasErrorTag(answer.response, "shared_link_already_exists")) return fail(answer);
    if (const auto link = sharedLink(linkInError(document->root()))) return finishWith(link, answer);
    send(listRequest(), &LinkLoad::listed);
  }

  /// The refusal names the existing link, unless that has settings of its own.
  static const json::object* linkInError(const json::object& answer) {
    const json::object* error = servicejson::object(answer, "error");
    const json::object* exists = error ? servicejson::object(*error, "shared_link_already_exists") : nullptr;
    return exists ? servicejson::object(*exists, "metadata") : nullptr;
  }

  void listed(const ServiceAnswer& answer) {
    if (answer.error) return fail(answer);
    const auto document = Document::parse(answer.response.body);
    finishWith(sharedLink(document ? firstLink(document->root()) : nullptr), answer);
  }

  void finishWith(const std::shared_ptr<DBSharedLink>& link, const ServiceAnswer& answer) {
    if (!link) return failInvalid(answer.response);
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadedSharableLink(client, link, about_.path);
    });
  }
};

/// Looks for a link and makes none.
class LinkSearch final : public LinkOperation {
 public:
  LinkSearch(ImplRef client, const std::string& path)
      : LinkOperation(std::move(client), "look for a link to", path) {}

  void start() {
    if (!isLinkable()) return failLater(unacceptablePathError(about_));
    send(listRequest(), &LinkSearch::listed);
  }

 private:
  void listed(const ServiceAnswer& answer) {
    if (answer.error) return fail(answer);
    const auto url = urlIn(answer.response);
    if (!url) return failInvalid(answer.response);
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.requestSucceeded(client, str(*url));
    });
  }

  /// Empty when there is no link, nothing when the answer is not understood.
  static std::optional<std::string> urlIn(const HttpResponse& response) {
    const auto document = Document::parse(response.body);
    const json::array* links = document ? servicejson::array(document->root(), "links") : nullptr;
    if (!links) return std::nullopt;
    if (links->empty()) return std::string();
    const json::object* first = firstLink(document->root());
    const auto url = first ? servicejson::text(*first, "url") : std::nullopt;
    return url ? std::optional<std::string>(*url) : std::nullopt;
  }
};

}  // namespace

// The service no longer makes short links; the full one is given either way.
void DBRestClient::loadSharableLinkForFile(const std::string& path, bool /*shortUrl*/) {
  std::make_shared<LinkLoad>(impl_, path)->start();
}

void DBRestClient::findSharableLinkForFile(const std::string& path) {
  std::make_shared<LinkSearch>(impl_, path)->start();
}
