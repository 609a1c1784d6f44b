#include <boost/json.hpp>
#include <deque>
#include <map>
#include <utility>

#include "foundation/Paths.h"
#include "sdk/ClientInternals.h"
#include "sdk/DBError.h"
#include "sdk/wire/IconNames.h"
#include "sdk/wire/PageSequence.h"
#include "sdk/wire/RecordReader.h"
#include "sdk/wire/ServiceJson.h"

using namespace kzv::sdk;

namespace json = boost::json;
using servicejson::Document;

namespace {

constexpr int pageLimit = 2000;  // the service's largest; fewer pages are fewer round trips

/// Loads one item, and a folder's children page by page. The item's own record and the first page are asked
/// for at the same time, unless no folder is expected: a folder then costs one round trip less, a file only
/// an answer that nobody reads. Each further page is asked for before the records of the page at hand are
/// built.
class MetadataLoad : public std::enable_shared_from_this<MetadataLoad> {
 public:
  MetadataLoad(std::shared_ptr<DBRestClient::Impl> client, const std::string& path,
               DBRestClient::Expect expected, const std::optional<std::string>& folder)
      : client_(std::move(client)),
        operation_(client_->beginOperation()),
        about_{"load", path},
        servicePath_(servicePath(path)),
        expected_(expected),
        folder_(folder ? std::make_shared<const std::string>(*folder) : nullptr) {}

  void start() {
    if (!servicePath_) {
      client_->performLater(operation_, [self = shared_from_this()] {
        self->fail({{}, unacceptablePathError(self->about_), {}});
      });
      return;
    }
    if (servicePath_->empty()) {
      fields_.path = "/";
      fields_.lowercasePath = "/";
      becomeFolder("/");
    } else {
      askForRecord();
      if (expected_ == DBRestClient::Expect::noFolder) return;
    }
    askForFirstPage();
  }

 private:
  void askForRecord() {
    const json::object argument{{"path", *servicePath_}, {"include_deleted", true}};
    client_->send(operation_, readingRequest("files/get_metadata", argument, about_),
                  [self = shared_from_this()](ServiceAnswer& answer) { self->receivedRecord(answer); });
  }

  void askForFirstPage() {
    // Documents that exist only online cannot be copied, so they are no part of the tree here.
    const json::object argument{
        {"path", *servicePath_}, {"limit", pageLimit}, {"include_non_downloadable_files", false}};
    client_->send(operation_, readingRequest("files/list_folder", argument, about_),
                  [self = shared_from_this()](ServiceAnswer& answer) { self->receivedPage(answer); });
  }

  void askForNextPage() {
    if (nextCursor_.empty()) return;
    const json::object argument{{"cursor", std::exchange(nextCursor_, {})}};
    client_->send(operation_, readingRequest("files/list_folder/continue", argument, about_),
                  [self = shared_from_this()](ServiceAnswer& answer) { self->receivedPage(answer); });
  }

  void receivedRecord(const ServiceAnswer& answer) {
    if (answer.error) return fail(answer);
    const auto document = Document::parse(answer.response.body);
    const auto record = document ? RecordReader().record(document->root(), folder_) : nullptr;
    if (!record) return failInvalid(answer.response);
    const std::string askedFolder = deletingLastPathComponent(*servicePath_);
    if (folder_ || deletingLastPathComponent(record->path()) == askedFolder) return useRecord(record);
    record_ = document;
    askForFolderNames(askedFolder);
  }

  void askForFolderNames(const std::string& folder) {
    for (std::string path = folder; path != "/"; path = deletingLastPathComponent(path)) folderNames_[path];
    unnamedFolders_ = folderNames_.size();
    for (const auto& [path, name] : folderNames_) {
      client_->send(operation_, readingRequest("files/get_metadata", {{"path", path}}, about_),
                    [self = shared_from_this(), asked = path](ServiceAnswer& answer) {
                      self->receivedFolder(asked, answer);
                    });
    }
  }

  void receivedFolder(const std::string& path, const ServiceAnswer& answer) {
    const auto document = answer.error ? nullptr : Document::parse(answer.response.body);
    const auto folder = document ? RecordReader().record(document->root(), nullptr) : nullptr;
    folderNames_[path] =
        folder ? folder->filename() : lastPathComponent(path);  // gone just now, or not for us
    if (--unnamedFolders_ > 0) return;
    std::string known = "/";
    for (const auto& [asked, name] : folderNames_)
      known = appendingPathComponent(known, name);  // outermost first
    const auto shared = std::make_shared<const std::string>(std::move(known));
    useRecord(RecordReader().record(record_->root(), shared));
  }

  void useRecord(const DBRestClientDelegate::MetadataRef& record) {
    if (!record->isDirectory()) return finish(record);
    fields_.path = record->path();
    fields_.lowercasePath = record->lowercasePath();
    fields_.icon = record->icon();
    becomeFolder(fields_.path);
    if (expected_ == DBRestClient::Expect::noFolder) return askForFirstPage();
    if (listingFailure_) return fail(*listingFailure_);
    askForNextPage();
    addWaitingPages();
    finishWhenComplete();
  }

  void becomeFolder(const std::string& path) {
    fields_.isDirectory = true;
    if (path == "/") fields_.icon = iconForFolder("/", false);
    listing_.emplace(path);
  }

  void receivedPage(ServiceAnswer& answer) {
    if (answer.error) return listingFailed(answer);
    auto page = Document::parse(answer.response.body);
    if (!page) return failInvalid(answer.response);
    const auto* entries = servicejson::array(page->root(), "entries");
    const auto cursor = servicejson::text(page->root(), "cursor");
    const auto hasMore = servicejson::boolean(page->root(), "has_more");
    if (!entries || !cursor || !hasMore) return failInvalid(answer.response);
    if (const char* problem = pages_.problemWith(entries->size(), *hasMore, *cursor))
      return fail({{}, requestError(DBErrorInvalidResponse, problem, about_), {}});
    lastPageArrived_ = !*hasMore;
    if (*hasMore) nextCursor_ = *cursor;
    waitingPages_.push_back(std::move(page));
    if (listing_ || waitingPages_.size() < servicelimits::waitingPages) askForNextPage();
    addWaitingPages();
    finishWhenComplete();
  }

  void listingFailed(ServiceAnswer& answer) {
    const bool cursorIsGone = hasErrorTag(answer.response, "reset");
    if (cursorIsGone && !hasStartedAgain_) {
      hasStartedAgain_ = true;
      waitingPages_.clear();
      pages_ = PageSequence();
      if (listing_) listing_->clear();
      return askForFirstPage();
    }
    if (listing_) return fail(answer);
    // Whether it matters is known when the record is: a file has no listing.
    listingFailure_ = std::move(answer);
  }

  void addWaitingPages() {
    if (!listing_)
      return;  // the children's paths begin with the folder's, whose letter case is not known yet
    for (; !waitingPages_.empty(); waitingPages_.pop_front()) {
      if (!listing_->addPage(*servicejson::array(waitingPages_.front()->root(), "entries"))) {
        return failInvalid({});
      }
    }
  }

  void finishWhenComplete() {
    if (!listing_ || !lastPageArrived_ || operation_->cancelled) return;
    fields_.contents = listing_->contents();
    fields_.hash = listing_->hash();
    finish(std::make_shared<const DBMetadata>(std::move(fields_)));
  }

  void finish(const DBRestClientDelegate::MetadataRef& record) {
    client_->finish(operation_, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadedMetadata(client, record);
    });
  }

  void fail(const ServiceAnswer& answer) {
    client_->fail(operation_, answer, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadMetadataFailedWithError(client, answer.error);
    });
  }

  void failInvalid(const HttpResponse& response) { fail({{}, invalidResponseError(response, about_), {}}); }

  const std::shared_ptr<DBRestClient::Impl> client_;
  const DBRestClient::Impl::OperationRef operation_;
  const RequestDescription about_;
  const std::optional<std::string> servicePath_;
  const DBRestClient::Expect expected_;
  const std::shared_ptr<const std::string> folder_;  // null: not known
  std::shared_ptr<const Document> record_;           // the answer, while the names of folders are asked for
  std::map<std::string, std::string> folderNames_;   // by the path as asked, each above those it is part of
  std::size_t unnamedFolders_ = 0;
  DBMetadata::Fields fields_;              // the folder's own record, as far as it is known
  std::optional<ListingBuilder> listing_;  // set once the item is known to be a folder
  std::deque<std::shared_ptr<const Document>> waitingPages_;
  PageSequence pages_;
  std::string nextCursor_;  // of a page that is promised and has not been asked for
  std::optional<ServiceAnswer> listingFailure_;
  bool lastPageArrived_ = false;
  bool hasStartedAgain_ = false;
};

}  // namespace

void DBRestClient::loadMetadata(const std::string& path, Expect expected,
                                const std::optional<std::string>& folder) {
  std::make_shared<MetadataLoad>(impl_, path, expected, folder)->start();
}
