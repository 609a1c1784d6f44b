#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "foundation/NSLog.h"
#include "sdk/DBError.h"
#include "sdk/DBRestClientImpl.h"
#include "sdk/RecordReader.h"
#include "sdk/ServiceJson.h"

namespace json = boost::json;
using servicejson::Document;
using namespace std::chrono_literals;

namespace {

/// One page of the account's changes, or the cursor to begin with.
class DeltaLoad : public std::enable_shared_from_this<DeltaLoad> {
 public:
  explicit DeltaLoad(std::shared_ptr<DBRestClient::Impl> client)
      : client_(std::move(client)), operation_(client_->beginOperation()) {}

  /// Only the newest cursor: walking the whole account would cost a request for every two thousand items, and
  /// nobody needs what it brings.
  void askForNewestCursor() {
    const json::object argument{{"path", ""}, {"recursive", true}, {"include_non_downloadable_files", false}};
    client_->send(operation_, rpcRequest("files/list_folder/get_latest_cursor", argument, about_),
                  [self = shared_from_this()](ServiceAnswer& answer) { self->receivedCursor(answer); });
  }

  void askForChanges(const std::string& cursor) {
    if (cursor != client_->delta.promised) client_->delta = {};  // a new run
    client_->send(operation_, rpcRequest("files/list_folder/continue", {{"cursor", cursor}}, about_),
                  [self = shared_from_this()](ServiceAnswer& answer) { self->receivedChanges(answer); });
  }

 private:
  void receivedCursor(const ServiceAnswer& answer) {
    if (answer.error) return fail(answer);
    const auto document = Document::parse(answer.response.body);
    const auto cursor = document ? servicejson::text(document->root(), "cursor") : std::nullopt;
    if (!cursor) return failInvalid(answer.response);
    finish({}, true, std::string(*cursor), false);
  }

  void receivedChanges(const ServiceAnswer& answer) {
    if (answer.error) return hasErrorTag(answer.response, "reset") ? askForNewestCursor() : fail(answer);
    const auto page = Document::parse(answer.response.body);
    const auto* entries = page ? servicejson::array(page->root(), "entries") : nullptr;
    const auto cursor = page ? servicejson::text(page->root(), "cursor") : std::nullopt;
    const auto hasMore = page ? servicejson::boolean(page->root(), "has_more") : std::nullopt;
    if (!entries || !cursor || !hasMore) return failInvalid(answer.response);
    if (const char* problem = client_->delta.pages.problemWith(entries->size(), *hasMore, *cursor)) {
      client_->delta = {};
      return fail({{}, requestError(DBErrorInvalidResponse, problem, about_), {}});
    }
    std::size_t unreadable = 0;
    const auto changes = RecordReader().deltaEntries(*entries, unreadable);
    if (unreadable > 0)
      NSLog(NSLogLevel::warning, "loadDelta", fmt::format("{} changes could not be read", unreadable));
    client_->delta.promised = *hasMore ? std::string(*cursor) : std::string();
    finish(changes, false, std::string(*cursor), *hasMore);
  }

  void finish(const std::vector<DBDeltaEntry>& entries, bool reset, const std::string& cursor, bool hasMore) {
    client_->finish(operation_, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadedDeltaEntries(client, entries, reset, cursor, hasMore);
    });
  }

  void fail(const ServiceAnswer& answer) {
    client_->fail(operation_, answer, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadDeltaFailedWithError(client, answer.error);
    });
  }

  void failInvalid(const HttpResponse& response) { fail({{}, invalidResponseError(response, about_), {}}); }

  const std::shared_ptr<DBRestClient::Impl> client_;
  const DBRestClient::Impl::OperationRef operation_;
  const RequestDescription about_{"load the changes of the account", ""};
};

/// A request that waits at the service for the next change. It acts for nobody: the cursor says whose.
class ChangeWait : public std::enable_shared_from_this<ChangeWait> {
 public:
  explicit ChangeWait(std::shared_ptr<DBRestClient::Impl> client)
      : client_(std::move(client)), operation_(client_->beginOperation()) {}

  void start(const std::string& cursor, std::chrono::seconds limit) {
    constexpr auto serviceAndNetwork = 100s;  // the service adds up to 90 s of its own
    ServiceRequest request =
        rpcRequest("files/list_folder/longpoll", {{"cursor", cursor}, {"timeout", limit.count()}}, about_);
    request.style = ServiceRequest::Style::notify;
    request.timeLimit = limit + serviceAndNetwork;
    client_->sendFor(operation_, {}, std::move(request),
                     [self = shared_from_this()](ServiceAnswer& answer) { self->received(answer); });
  }

 private:
  void received(const ServiceAnswer& answer) {
    if (answer.error) {
      // A lost cursor is found out, and replaced, by whoever loads the changes.
      return hasErrorTag(answer.response, "reset") ? finish(true, 0s) : fail(answer);
    }
    const auto document = Document::parse(answer.response.body);
    const auto changes = document ? servicejson::boolean(document->root(), "changes") : std::nullopt;
    if (!changes) return fail({{}, invalidResponseError(answer.response, about_), {}});
    constexpr std::int64_t longestBackoff = 3600;  // more would be a mistake
    const auto backoff = servicejson::integer(document->root(), "backoff").value_or(0);
    finish(*changes, std::chrono::seconds(std::clamp<std::int64_t>(backoff, 0, longestBackoff)));
  }

  void finish(bool changes, std::chrono::seconds backoff) {
    client_->finish(operation_, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.waitedForChanges(client, changes, backoff);
    });
  }

  void fail(const ServiceAnswer& answer) {
    client_->fail(operation_, answer, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.waitForChangesFailedWithError(client, answer.error);
    });
  }

  const std::shared_ptr<DBRestClient::Impl> client_;
  const DBRestClient::Impl::OperationRef operation_;
  const RequestDescription about_{"wait for changes of the account", ""};
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
