#include <algorithm>
#include <utility>

#include "foundation/DispatchQueue.h"
#include "foundation/Paths.h"
#include "sdk/DBError.h"
#include "sdk/DBRestClientImpl.h"
#include "sdk/LocalFile.h"
#include "sdk/RecordReader.h"
#include "sdk/ServiceJson.h"
#include "sdk/ServiceLimits.h"

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

/// Brings the body of one answer into a local file. What differs between a file and its preview is given by
/// the two callbacks of the derived class.
class Download : public std::enable_shared_from_this<Download> {
 public:
  Download(std::shared_ptr<DBRestClient::Impl> client, const std::string& path, std::string intoPath,
           LocalAccess access, std::string action)
      : client_(std::move(client)),
        operation_(client_->beginOperation()),
        about_{std::move(action), path},
        path_(namesVersion(path) ? path : servicePath(path)),
        intoPath_(std::move(intoPath)),
        access_(access) {}
  virtual ~Download() = default;

  void start() {
    if (!path_ || path_->empty()) return failLater(unacceptablePathError(about_));
    if (!isAcceptableTarget(intoPath_)) {
      return failLater(requestError(DBErrorLocalFile, "there is no such place on this computer", about_));
    }
    auto request = makeRequest();
    if (!request) return failLater(requestError(400, "there is no preview of this size", about_));
    sink_ = std::make_shared<FileSink>(
        intoPath_, access_, progress(),
        [self = weak_from_this()](std::string_view result,
                                  NSErrorRef* error) -> std::optional<AnnouncedBody> {
          const auto download = self.lock();
          return download ? download->readResult(result, error) : std::nullopt;
        });
    operation_->afterCancel = [weak = std::weak_ptr(sink_)] {  // its file may be about to get its name
      if (const auto sink = weak.lock()) sink->withdraw();
    };
    request->style = ServiceRequest::Style::contentDownload;
    request->sink = sink_;
    client_->send(operation_, std::move(*request),
                  [self = shared_from_this()](ServiceAnswer& answer) { self->received(answer); });
  }

 protected:
  virtual std::optional<ServiceRequest> makeRequest() const = 0;
  /// Progress reports, or nothing.
  virtual ProgressReceiver progress() { return {}; }
  /// Reads the record from the answer's description; null when it holds none.
  virtual RecordReader::RecordRef recordFrom(const json::object& description) const = 0;
  /// What body comes with that description.
  virtual AnnouncedBody announcedBy(const json::object& description) const = 0;
  virtual void tellSuccess(DBRestClientDelegate& delegate, DBRestClient& client) = 0;
  virtual void tellFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) = 0;

  /// Null where the path is no place.
  std::shared_ptr<const std::string> folderPath() const {
    if (namesVersion(*path_)) return nullptr;
    return std::make_shared<const std::string>(deletingLastPathComponent(*path_));
  }

  const std::shared_ptr<DBRestClient::Impl> client_;
  const DBRestClient::Impl::OperationRef operation_;
  const RequestDescription about_;
  const std::optional<std::string> path_;
  const std::string intoPath_;
  const LocalAccess access_;
  /// Of what came. Written on the network thread before the answer is handed over.
  RecordReader::RecordRef record_;

 private:
  /// Whatever answers without a record (the sign-in page of a public network, for one) is not the service.
  std::optional<AnnouncedBody> readResult(std::string_view result, NSErrorRef* error) {
    const auto description = Document::parse(result);
    record_ = description ? recordFrom(description->root()) : nullptr;
    const bool isAnswer = record_ && (!namesVersion(*path_) || *path_ == "rev:" + record_->rev());
    if (isAnswer) return announcedBy(description->root());
    setError(error,
             requestError(DBErrorInvalidResponse, "the answer does not say which file it brings", about_));
    return std::nullopt;
  }

  void failLater(const NSErrorRef& error) {
    client_->performLater(operation_, [self = shared_from_this(), error] { self->fail({{}, error, {}}); });
  }

  void received(ServiceAnswer& answer) {
    if (sink_->failure()) answer.error = sink_->failure();
    if (answer.error) return fail(answer);
    // Syncing may take long, and neither the callbacks' thread nor the network may wait for the disk.
    DispatchQueue::global().async([self = shared_from_this()] {
      if (self->operation_->cancelled) return;
      NSErrorRef error;
      self->sink_->keep(self->record_->lastModifiedDate(), &error);
      self->client_->performLater(self->operation_, [self, error] { self->kept(error); });
    });
  }

  void kept(const NSErrorRef& error) {
    if (error) return fail({{}, error, {}});
    client_->finish(operation_, [this](DBRestClientDelegate& delegate, DBRestClient& client) {
      tellSuccess(delegate, client);
    });
  }

  void fail(const ServiceAnswer& answer) {
    client_->fail(operation_, answer, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      tellFailure(delegate, client, answer.error);
    });
  }

  std::shared_ptr<FileSink> sink_;
};

class FileDownload final : public Download {
 public:
  FileDownload(std::shared_ptr<DBRestClient::Impl> client, const std::string& path, std::string intoPath,
               LocalAccess access)
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

  void tellSuccess(DBRestClientDelegate& delegate, DBRestClient& client) override {
    delegate.loadedFile(client, intoPath_, record_);
  }
  void tellFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.loadFileFailedWithError(client, error);
  }
};

class ThumbnailDownload final : public Download {
 public:
  ThumbnailDownload(std::shared_ptr<DBRestClient::Impl> client, const std::string& path,
                    std::string_view size, std::string intoPath)
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

  void tellSuccess(DBRestClientDelegate& delegate, DBRestClient& client) override {
    delegate.loadedThumbnail(client, intoPath_, record_);
  }
  void tellFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
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
