#include <algorithm>
#include <boost/json.hpp>
#include <utility>

#include "foundation/DispatchQueue.h"
#include "foundation/Paths.h"
#include "sdk/ClientInternals.h"
#include "sdk/DBError.h"
#include "sdk/wire/LocalFile.h"
#include "sdk/wire/RecordReader.h"
#include "sdk/wire/ServiceJson.h"
#include "sdk/wire/ServiceLimits.h"

using namespace kzv::sdk;

namespace json = boost::json;
using servicejson::Document;

namespace {

struct ThumbnailSize {
  std::string_view name;
  std::string_view serviceName;
};
constexpr ThumbnailSize thumbnailSizes[] = {
    {"xs", "w32h32"}, {"s", "w64h64"}, {"m", "w128h128"}, {"l", "w640h480"}, {"xl", "w1024h768"}};

/// "rev:" and at least nine digits: one version of a file, wherever that is now.
bool namesVersion(std::string_view path) {
  constexpr std::string_view prefix = "rev:";
  constexpr std::size_t fewestDigits = 9;
  return path.starts_with(prefix) && path.size() >= prefix.size() + fewestDigits &&
         path.find_first_not_of("0123456789abcdef", prefix.size()) == std::string_view::npos;
}

bool isAcceptableTarget(std::string_view path) {
  return path.starts_with('/') && !path.ends_with('/') && path.find('\0') == std::string_view::npos;
}

/// Stores the body of one answer in a local file. The derived classes say how a file and a preview differ.
class Download : public ClientOperation {
 public:
  Download(ImplRef client, const std::string& path, std::string intoPath, LocalAccess access,
           std::string action)
      : ClientOperation(std::move(client), {std::move(action), path}),
        path_(namesVersion(path) ? path : servicePath(path)),
        intoPath_(std::move(intoPath)),
        access_(access) {}

  void start() {
    if (!path_ || path_->empty()) return failLater(unacceptablePathError(about_));
    if (!isAcceptableTarget(intoPath_)) {
      return failLater(requestError(DBErrorLocalFile, "there is no such place on this computer", about_));
    }
    auto request = makeRequest();
    if (!request) return failLater(requestError(400, "there is no preview of this size", about_));
    sink_ = std::make_shared<FileSink>(
        intoPath_, access_, progress(),
        [weak = weak_from_this()](std::string_view result,
                                  NSErrorRef* error) -> std::optional<AnnouncedBody> {
          const auto download = std::static_pointer_cast<Download>(weak.lock());
          return download ? download->readResult(result, error) : std::nullopt;
        });
    operation_->afterCancel = [weak = std::weak_ptr(sink_)] {  // its file may be about to get its name
      if (const auto sink = weak.lock()) sink->withdraw();
    };
    request->style = ServiceRequest::Style::contentDownload;
    request->sink = sink_;
    send(std::move(*request), &Download::received);
  }

 protected:
  virtual std::optional<ServiceRequest> makeRequest() const = 0;
  /// Progress reports, or nothing.
  virtual ProgressReceiver progress() { return {}; }
  /// Reads the record from the answer's description; null when it holds none.
  virtual RecordReader::RecordRef recordFrom(const json::object& description) const = 0;
  /// What body comes with that description.
  virtual AnnouncedBody announcedBy(const json::object& description) const = 0;
  virtual void notifySuccess(DBRestClientDelegate& delegate, DBRestClient& client) = 0;

  /// Null when the path names a version.
  std::shared_ptr<const std::string> folderPath() const {
    if (namesVersion(*path_)) return nullptr;
    return std::make_shared<const std::string>(deletingLastPathComponent(*path_));
  }

  const std::optional<std::string> path_;
  const std::string intoPath_;
  const LocalAccess access_;
  /// The downloaded version's; written on the network thread before the answer is delivered.
  RecordReader::RecordRef record_;

 private:
  /// An answer without a record is not the service's: the sign-in page of a public network, for example.
  std::optional<AnnouncedBody> readResult(std::string_view result, NSErrorRef* error) {
    const auto description = Document::parse(result);
    record_ = description ? recordFrom(description->root()) : nullptr;
    const bool isAnswer = record_ && (!namesVersion(*path_) || *path_ == "rev:" + record_->rev());
    if (isAnswer) return announcedBy(description->root());
    setError(error,
             requestError(DBErrorInvalidResponse, "the answer does not say which file it brings", about_));
    return std::nullopt;
  }

  void received(ServiceAnswer& answer) {
    if (sink_->failure()) answer.error = sink_->failure();
    if (answer.error) return fail(answer);
    // Syncing may take long; neither the callbacks' thread nor the network thread may wait for the disk.
    DispatchQueue::global().async([self = std::static_pointer_cast<Download>(shared_from_this())] {
      if (self->operation_->cancelled) return;
      NSErrorRef error;
      self->sink_->keep(self->record_->lastModifiedDate(), &error);
      self->client_->performLater(self->operation_, [self, error] { self->kept(error); });
    });
  }

  void kept(const NSErrorRef& error) {
    if (error) return fail(error);
    finish([this](DBRestClientDelegate& delegate, DBRestClient& client) { notifySuccess(delegate, client); });
  }

  std::shared_ptr<FileSink> sink_;
};

class FileDownload final : public Download {
 public:
  FileDownload(ImplRef client, const std::string& path, std::string intoPath, LocalAccess access)
      : Download(std::move(client), path, std::move(intoPath), access, "download") {}

 private:
  std::optional<ServiceRequest> makeRequest() const override {
    return readingRequest("files/download", {{"path", *path_}}, about_);
  }

  ProgressReceiver progress() override {
    return progressReceiver(operation_->runLoop,
                            [client = client_, operation = operation_, path = intoPath_](double fraction) {
                              if (operation->cancelled) return;
                              client->notify([&](DBRestClientDelegate& delegate, DBRestClient& owner) {
                                delegate.loadProgress(owner, fraction, path);
                              });
                            });
  }

  RecordReader::RecordRef recordFrom(const json::object& description) const override {
    return RecordReader().record(description, folderPath(), RecordReader::Kind::file);
  }

  AnnouncedBody announcedBy(const json::object& description) const override {
    return {record_->totalBytes(), true,
            std::string(servicejson::text(description, "content_hash").value_or(""))};
  }

  void notifySuccess(DBRestClientDelegate& delegate, DBRestClient& client) override {
    delegate.loadedFile(client, intoPath_, record_);
  }
  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.loadFileFailedWithError(client, error);
  }
};

class ThumbnailDownload final : public Download {
 public:
  ThumbnailDownload(ImplRef client, const std::string& path, std::string_view size, std::string intoPath)
      : Download(std::move(client), path, std::move(intoPath), LocalAccess::ownerOnly, "load the preview of"),
        size_(size) {}

 private:
  std::optional<ServiceRequest> makeRequest() const override {
    const auto size = std::find_if(std::begin(thumbnailSizes), std::end(thumbnailSizes),
                                   [&](const ThumbnailSize& known) { return known.name == size_; });
    if (size == std::end(thumbnailSizes)) return std::nullopt;
    const json::object resource{{".tag", "path"}, {"path", *path_}};
    return readingRequest(
        "files/get_thumbnail_v2",
        {{"resource", resource}, {"format", "jpeg"}, {"size", size->serviceName}, {"mode", "strict"}},
        about_);
  }

  RecordReader::RecordRef recordFrom(const json::object& description) const override {
    const json::object* file = servicejson::object(description, "file_metadata");
    return file ? RecordReader().record(*file, folderPath(), RecordReader::Kind::file) : nullptr;
  }

  AnnouncedBody announcedBy(const json::object& /*description*/) const override {
    return {servicelimits::previewBytes, false};
  }

  void notifySuccess(DBRestClientDelegate& delegate, DBRestClient& client) override {
    delegate.loadedThumbnail(client, intoPath_, record_);
  }
  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.loadThumbnailFailedWithError(client, error);
  }

  const std::string size_;
};

}  // namespace

void DBRestClient::loadFile(const std::string& path, const std::string& intoPath, LocalAccess access) {
  std::make_shared<FileDownload>(impl_, path, intoPath, access)->start();
}

void DBRestClient::loadThumbnail(const std::string& path, const std::string& size,
                                 const std::string& intoPath) {
  std::make_shared<ThumbnailDownload>(impl_, path, size, intoPath)->start();
}
