#include <utility>

#include "sdk/DBRestClientImpl.h"
#include "sdk/RecordReader.h"
#include "sdk/ServiceJson.h"

namespace json = boost::json;
using servicejson::Document;

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
    client_->send(operation_, readingRequest("files/list_folder/get_latest_cursor", argument, about_),
                  [self = shared_from_this()](ServiceAnswer& answer) { self->receivedCursor(answer); });
  }

  void askForChanges(const std::string& cursor) {
    client_->send(operation_, readingRequest("files/list_folder/continue", {{"cursor", cursor}}, about_),
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
    auto changes = entries ? RecordReader().deltaEntries(*entries) : std::nullopt;
    if (!changes || !cursor || !hasMore) return failInvalid(answer.response);
    finish(*changes, false, std::string(*cursor), *hasMore);
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

}  // namespace

void DBRestClient::loadDelta(const std::optional<std::string>& cursor) {
  const auto load = std::make_shared<DeltaLoad>(impl_);
  if (cursor && !cursor->empty()) {
    load->askForChanges(*cursor);
  } else {
    load->askForNewestCursor();
  }
}
