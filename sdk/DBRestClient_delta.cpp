#include <algorithm>
#include <boost/json.hpp>
#include <utility>

#include <fmt/format.h>

#include "foundation/NSLog.h"
#include "sdk/ClientInternals.h"
#include "sdk/DBError.h"
#include "sdk/wire/RecordReader.h"
#include "sdk/wire/ServiceJson.h"

using namespace kzv::sdk;

namespace json = boost::json;
using servicejson::Document;
using namespace std::chrono_literals;

namespace {

/// One page of the account's changes, or the cursor to begin with.
class DeltaLoad final : public ClientOperation {
 public:
  explicit DeltaLoad(ImplRef client)
      : ClientOperation(std::move(client), {"load the changes of the account", ""}) {}

  /// Only the newest cursor: walking the whole account would cost a request for every two thousand items, and
  /// nobody needs what it brings.
  void askForNewestCursor() {
    const json::object argument{{"path", ""}, {"recursive", true}, {"include_non_downloadable_files", false}};
    send(rpcRequest("files/list_folder/get_latest_cursor", argument, about_), &DeltaLoad::receivedCursor);
  }

  void askForChanges(const std::string& cursor) {
    if (cursor != client_->delta.promised) client_->delta = {};  // a new run
    send(rpcRequest("files/list_folder/continue", {{"cursor", cursor}}, about_), &DeltaLoad::receivedChanges);
  }

 private:
  void receivedCursor(const ServiceAnswer& answer) {
    if (answer.error) return fail(answer);
    const auto document = Document::parse(answer.response.body);
    const auto cursor = document ? servicejson::text(document->root(), "cursor") : std::nullopt;
    if (!cursor) return failInvalid(answer.response);
    finishWith({}, true, std::string(*cursor), false);
  }

  void receivedChanges(const ServiceAnswer& answer) {
    if (answer.error) return hasErrorTag(answer.response, "reset") ? askForNewestCursor() : fail(answer);
    const auto page = Document::parse(answer.response.body);
    const auto* entries = page ? servicejson::array(page->root(), "entries") : nullptr;
    const auto cursor = page ? servicejson::text(page->root(), "cursor") : std::nullopt;
    const auto hasMore = page ? servicejson::boolean(page->root(), "has_more") : std::nullopt;
    if (!entries || !cursor || !hasMore) return failInvalid(answer.response);
    const bool isMore = hasMore.value();
    if (const char* problem = client_->delta.pages.problemWith(entries->size(), isMore, *cursor)) {
      client_->delta = {};
      return fail(requestError(DBErrorInvalidResponse, problem, about_));
    }
    std::size_t unreadable = 0;
    const auto changes = RecordReader().deltaEntries(*entries, unreadable);
    if (unreadable > 0)
      NSLog(NSLogLevel::warning, "loadDelta", fmt::format("{} changes could not be read", unreadable));
    client_->delta.promised = isMore ? std::string(*cursor) : std::string();
    finishWith(changes, false, std::string(*cursor), isMore);
  }

  void finishWith(const std::vector<DBDeltaEntry>& entries, bool reset, const std::string& cursor,
                  bool hasMore) {
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadedDeltaEntries(client, entries, reset, cursor, hasMore);
    });
  }

  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.loadDeltaFailedWithError(client, error);
  }
};

/// A request that waits at the service for the next change. It acts for nobody: the cursor says whose.
class ChangeWait final : public ClientOperation {
 public:
  explicit ChangeWait(ImplRef client)
      : ClientOperation(std::move(client), {"wait for changes of the account", ""}) {}

  void start(const std::string& cursor, std::chrono::seconds limit) {
    constexpr auto serviceAndNetwork = 100s;  // the service adds up to 90 s of its own
    ServiceRequest request =
        rpcRequest("files/list_folder/longpoll", {{"cursor", cursor}, {"timeout", limit.count()}}, about_);
    request.style = ServiceRequest::Style::notify;
    request.timeLimit = limit + serviceAndNetwork;
    client_->sendFor(operation_, {}, std::move(request), handler(&ChangeWait::received));
  }

 private:
  void received(const ServiceAnswer& answer) {
    if (answer.error) {
      // Loading the changes detects a lost cursor and replaces it.
      return hasErrorTag(answer.response, "reset") ? finishWith(true, 0s) : fail(answer);
    }
    const auto document = Document::parse(answer.response.body);
    const auto changes = document ? servicejson::boolean(document->root(), "changes") : std::nullopt;
    if (!changes) return failInvalid(answer.response);
    constexpr std::int64_t longestBackoff = 3600;  // more would be a mistake
    const auto backoff = servicejson::integer(document->root(), "backoff").value_or(0);
    finishWith(*changes, std::chrono::seconds(std::clamp<std::int64_t>(backoff, 0, longestBackoff)));
  }

  void finishWith(bool changes, std::chrono::seconds backoff) {
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.waitedForChanges(client, changes, backoff);
    });
  }

  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.waitForChangesFailedWithError(client, error);
  }
};

}  // namespace

void DBRestClient::waitForChanges(const std::string& cursor, std::chrono::seconds limit) {
  std::make_shared<ChangeWait>(impl_)->start(cursor, limit);
}

void DBRestClient::loadDelta(const std::optional<std::string>& cursor) {
  const auto load = std::make_shared<DeltaLoad>(impl_);
  if (cursor && !cursor->empty()) {
    load->askForChanges(*cursor);
  } else {
    load->askForNewestCursor();
  }
}
