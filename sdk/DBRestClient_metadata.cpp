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

DBMetadata::Fields rootRecord() {
  DBMetadata::Fields fields;
  fields.path = fields.lowercasePath = "/";
  fields.icon = iconForFolder("/", false);
  fields.isDirectory = true;
  return fields;
}

/// Base of what lists folders page by page. Each further page is asked for before the records of the page at
/// hand are built. Where the service has lost the cursor of a listing, the listing starts again, once.
class PagedListing : public ClientOperation {
 protected:
  PagedListing(ImplRef client, const std::string& path, std::size_t maxEntries)
      : ClientOperation(std::move(client), {"load", path}),
        servicePath_(servicePath(path)),
        maxEntries_(maxEntries) {}

  /// Whether pages can be added already; those that come before are kept, a few of them.
  virtual bool isReady() const = 0;
  /// False when the page is broken.
  virtual bool addPage(const json::array& entries) = 0;
  /// Everything that was added no longer counts.
  virtual void clearListing() = 0;
  virtual void listingFailed(ServiceAnswer& answer) = 0;
  /// The last page has been added.
  virtual void finishListing() = 0;
  /// A list is longer than maxEntries.
  virtual void failTooLong() { fail(requestError(DBErrorInvalidResponse, PageSequence::tooLong, about_)); }

  void askForFirstPage(bool isRecursive) {
    isRecursive_ = isRecursive;
    pages_ = PageSequence(maxEntries_);
    nextCursor_.clear();
    waitingPages_.clear();
    clearListing();
    // Documents that exist only online cannot be copied, so they are no part of the tree here.
    json::object argument{
        {"path", *servicePath_}, {"limit", pageLimit}, {"include_non_downloadable_files", false}};
    if (isRecursive) argument["recursive"] = true;
    send(readingRequest("files/list_folder", argument, about_), &PagedListing::receivedPage);
  }

  /// Goes on once isReady() has become true.
  void addWaitingPages() {
    askForNextPage();
    for (; isReady() && !waitingPages_.empty(); waitingPages_.pop_front()) {
      if (!addPage(*servicejson::array(waitingPages_.front()->root(), "entries"))) return failInvalid({});
    }
    if (isReady() && isLastPageHere_ && !operation_->cancelled) finishListing();
  }

  const std::optional<std::string> servicePath_;

 private:
  void askForNextPage() {
    if (nextCursor_.empty() || (!isReady() && waitingPages_.size() >= servicelimits::waitingPages)) return;
    const json::object argument{{"cursor", std::exchange(nextCursor_, {})}};
    send(readingRequest("files/list_folder/continue", argument, about_), &PagedListing::receivedPage);
  }

  void receivedPage(ServiceAnswer& answer) {
    if (answer.error) return pageFailed(answer);
    auto page = Document::parse(answer.response.body);
    if (!page) return failInvalid(answer.response);
    const auto* entries = servicejson::array(page->root(), "entries");
    const auto cursor = servicejson::text(page->root(), "cursor");
    const auto hasMore = servicejson::boolean(page->root(), "has_more");
    if (!entries || !cursor || !hasMore) return failInvalid(answer.response);
    if (const char* problem = pages_.problemWith(entries->size(), *hasMore, *cursor)) {
      if (problem == PageSequence::tooLong) return failTooLong();
      return fail(requestError(DBErrorInvalidResponse, problem, about_));
    }
    isLastPageHere_ = !*hasMore;
    if (*hasMore) nextCursor_ = *cursor;
    waitingPages_.push_back(std::move(page));
    addWaitingPages();
  }

  void pageFailed(ServiceAnswer& answer) {
    if (!hasErrorTag(answer.response, "reset") || hasStartedAgain_) return listingFailed(answer);
    hasStartedAgain_ = true;
    askForFirstPage(isRecursive_);
  }

  const std::size_t maxEntries_;
  std::deque<std::shared_ptr<const Document>> waitingPages_;
  PageSequence pages_{maxEntries_};
  std::string nextCursor_;  // of a page that is promised and has not been asked for
  bool isRecursive_ = false;
  bool isLastPageHere_ = false;
  bool hasStartedAgain_ = false;
};

/// Loads one item, and a folder's children. The item's own record and the first page are asked for at the
/// same time, unless no folder is expected: a folder then costs one round trip less, a file only an answer
/// that nobody reads. Of a folder that is known only the pages are asked for.
class MetadataLoad final : public PagedListing {
 public:
  MetadataLoad(ImplRef client, const std::string& path, const DBKnownItem& known)
      : PagedListing(std::move(client), path, servicelimits::folderEntries),
        known_(known.folder),
        isListed_(!known.isNoFolder),
        folder_(known.folderPath ? std::make_shared<const std::string>(*known.folderPath) : nullptr) {}

  void start() {
    if (!servicePath_) return failLater(unacceptablePathError(about_));
    if (servicePath_->empty()) {
      becomeFolder(rootRecord());
    } else if (known_) {
      becomeFolder(known_->fields());
    } else {
      askForRecord();
    }
    if (isListed_) askForFirstPage(false);
  }

 private:
  void askForRecord() {
    const json::object argument{{"path", *servicePath_}, {"include_deleted", true}};
    send(readingRequest("files/get_metadata", argument, about_), &MetadataLoad::receivedRecord);
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
                    [self = std::static_pointer_cast<MetadataLoad>(shared_from_this()),
                     asked = path](ServiceAnswer& answer) { self->receivedFolder(asked, answer); });
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
    if (!record->isDirectory()) return finishWith(record);
    becomeFolder(record->fields());
    if (!isListed_) return askForFirstPage(false);
    if (listingFailure_) return fail(*listingFailure_);
    addWaitingPages();
  }

  void becomeFolder(DBMetadata::Fields fields) {
    fields_ = std::move(fields);
    listing_.emplace(fields_.folderPath ? appendingPathComponent(*fields_.folderPath, fields_.name)
                                        : fields_.path);
  }

  bool isReady() const override { return listing_.has_value(); }
  bool addPage(const json::array& entries) override { return listing_->addPage(entries); }
  void clearListing() override {
    if (listing_) listing_->clear();
  }

  void listingFailed(ServiceAnswer& answer) override {
    const bool isNoFolderNow =
        hasErrorTag(answer.response, "not_found") || hasErrorTag(answer.response, "not_folder");
    if (known_ && isNoFolderNow) {
      known_ = nullptr;
      listing_.reset();
      isListed_ = false;
      return askForRecord();
    }
    if (listing_) return fail(answer);
    // Whether it matters is known when the record is: a file has no listing.
    listingFailure_ = std::move(answer);
  }

  void finishListing() override {
    fields_.contents = listing_->contents();
    finishWith(std::make_shared<const DBMetadata>(std::move(fields_)));
  }

  void finishWith(const DBRestClientDelegate::MetadataRef& record) {
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadedMetadata(client, record);
    });
  }

  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.loadMetadataFailedWithError(client, error);
  }

  DBRestClientDelegate::MetadataRef known_;          // the folder's record, or null: not known
  bool isListed_;                                    // its first page has been asked for
  const std::shared_ptr<const std::string> folder_;  // null: not known
  std::shared_ptr<const Document> record_;           // the answer, while the names of folders are asked for
  std::map<std::string, std::string> folderNames_;   // by the path as asked, each above those it is part of
  std::size_t unnamedFolders_ = 0;
  DBMetadata::Fields fields_;              // the folder's own record, as far as it is known
  std::optional<ListingBuilder> listing_;  // set once the item is known to be a folder
  std::optional<ServiceAnswer> listingFailure_;
};

/// Loads a folder and everything below it in one list of pages.
class TreeLoad final : public PagedListing {
 public:
  TreeLoad(ImplRef client, const DBRestClientDelegate::MetadataRef& folder, std::size_t maxEntries)
      : PagedListing(std::move(client), folder ? folder->path() : "/", maxEntries),
        tree_(folder ? folder : std::make_shared<const DBMetadata>(rootRecord())) {}

  void start() {
    if (!servicePath_) return failLater(unacceptablePathError(about_));
    askForFirstPage(true);
  }

 private:
  bool isReady() const override { return true; }
  bool addPage(const json::array& entries) override { return tree_.addPage(entries); }
  void clearListing() override { tree_.clear(); }
  void listingFailed(ServiceAnswer& answer) override { fail(answer); }
  void failTooLong() override {
    fail(requestError(DBErrorTreeTooLarge, "there are more items below it than wanted", about_));
  }
  void finishListing() override {
    const auto tree = std::make_shared<DBTree>(tree_.folders());
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) { delegate.loadedTree(client, tree); });
  }
  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.loadTreeFailedWithError(client, error);
  }

  TreeBuilder tree_;
};

}  // namespace

void DBRestClient::loadMetadata(const std::string& path, const DBKnownItem& known) {
  std::make_shared<MetadataLoad>(impl_, path, known)->start();
}

void DBRestClient::loadTree(const DBRestClientDelegate::MetadataRef& folder, std::size_t maxEntries) {
  std::make_shared<TreeLoad>(impl_, folder, maxEntries)->start();
}
