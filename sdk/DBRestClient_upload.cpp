#include <algorithm>
#include <atomic>
#include <boost/json.hpp>
#include <charconv>
#include <cstdlib>
#include <utility>

#include "foundation/DispatchQueue.h"
#include "foundation/Paths.h"
#include "foundation/Unicode.h"
#include "sdk/ClientInternals.h"
#include "sdk/DBError.h"
#include "sdk/SessionInternals.h"
#include "sdk/wire/LocalFile.h"
#include "sdk/wire/RecordReader.h"
#include "sdk/wire/ServiceJson.h"

using namespace kzv::sdk;

namespace json = boost::json;
using servicejson::Document;

namespace {

using ImplRef = std::shared_ptr<DBRestClient::Impl>;
using RecordRef = DBRestClientDelegate::MetadataRef;

constexpr std::int64_t requestLimitBytes = 150LL * 1024 * 1024;  // the service's, for one body
// Four of the service's hash blocks. A chunk costs a round trip and an acknowledgement, some tenths of a
// second, so smaller ones waste a good line; a failed chunk is sent again, so larger ones waste a bad one.
constexpr std::uint64_t defaultChunkBytes = 16UL * 1024 * 1024;
constexpr int commitRetries = 3;  // over 2 to 4 seconds

std::uint64_t chunkSizeFromEnvironment() {
  const char* text = std::getenv("KZV_UPLOAD_CHUNK_BYTES");
  if (!text) return defaultChunkBytes;
  const std::string_view digits(text);
  std::uint64_t bytes = 0;
  const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), bytes);
  const bool isNumber = failure == std::errc{} && end == digits.data() + digits.size();
  return isNumber ? std::clamp<std::uint64_t>(bytes, 1, requestLimitBytes) : defaultChunkBytes;
}

json::object commitArgument(const std::string& target, const std::optional<std::string>& parentRev,
                            std::optional<NSDate::Time> modified) {
  json::object commit{{"path", target}, {"autorename", true}};
  if (parentRev && !parentRev->empty()) {
    commit["mode"] = json::object{{".tag", "update"}, {"update", *parentRev}};
  } else {
    commit["mode"] = "add";
  }
  if (modified) commit["client_modified"] = NSDate::iso8601(*modified);
  return commit;
}

/// The record of a stored file. Its name is the service's choice: a file that would have replaced another
/// version is stored beside it.
RecordRef storedRecord(const json::object& metadata) {
  return RecordReader().record(metadata, nullptr, RecordReader::Kind::file);
}

/// Whether a file that was to replace `parentRev` at `path` has done so, and does not stand beside it.
bool replaces(const std::optional<std::string>& parentRev, const RecordRef& record, const std::string& path) {
  return parentRev && !parentRev->empty() &&
         caselessKey(record->filename()) == caselessKey(lastPathComponent(path));
}

bool isDamaged(const json::object& metadata, const std::optional<ContentHash>& sent) {
  const auto stored = servicejson::text(metadata, "content_hash");
  return stored && sent && ContentHash(*sent).finish() != *stored;
}

/// A file that was stored with other bytes than were read.
struct DamagedFile {
  std::string path;
  std::string rev;
  bool hasReplaced = false;  // a version that was there before
};

std::optional<DamagedFile> damagedFile(const json::object& metadata, bool hasReplaced) {
  const auto path = servicejson::text(metadata, "path_lower");
  const auto rev = servicejson::text(metadata, "rev");
  if (!path || !rev) return std::nullopt;
  return DamagedFile{std::string(*path), std::string(*rev), hasReplaced};
}

ServiceAnswer damagedAnswer(RequestDescription about, const std::optional<DamagedFile>& damaged) {
  if (damaged && damaged->hasReplaced) about.storedRev = damaged->rev;
  return {{}, requestError(DBErrorInvalidResponse, "the content was damaged in transit", about)};
}

/// Ends an upload whose content arrived damaged. What was stored is deleted, or it would pass for the file;
/// only where it replaced a version it stays, since the path would else be lost with it.
/// @param fail  ends the operation with `reason`.
void endDamaged(const ImplRef& client, const DBRestClient::Impl::OperationRef& operation,
                const RequestDescription& about, const std::optional<DamagedFile>& damaged,
                ServiceAnswer reason, std::function<void(const ServiceAnswer&)> fail) {
  if (!damaged || damaged->hasReplaced) return fail(reason);
  ServiceRequest request =
      rpcRequest("files/delete_v2", {{"path", damaged->path}, {"parent_rev", damaged->rev}}, about);
  request.repeat =
      ServiceRequest::Repeat::always;  // of this very version there is nothing left to delete twice
  client->send(
      operation, std::move(request),
      [fail = std::move(fail), reason = std::move(reason)](ServiceAnswer& /*deleted*/) { fail(reason); });
}

/// An upload as far as all have it in common: a local file that is opened and read off the callbacks' thread.
class Upload : public ClientOperation {
 public:
  Upload(ImplRef client, RequestDescription about, std::string fromPath)
      : ClientOperation(std::move(client), std::move(about)), fromPath_(std::move(fromPath)) {}

  void start() {
    // Opening a file on a sleeping disk or a remote server may take long.
    DispatchQueue::global().async([self = std::static_pointer_cast<Upload>(shared_from_this())] {
      NSErrorRef error;
      auto source = FileSource::open(self->fromPath_, &error);
      if (source && self->announcesHashes().load()) {
        const auto [offset, sizeBytes] = self->sectionOf(*source);
        self->announcedHash_ = source->hashOf(offset, sizeBytes).value_or("");
      }
      self->client_->performLater(self->operation_, [self, source, error] {
        self->source_ = source;
        source ? self->sendSection() : self->fail(error);
      });
    });
  }

 protected:
  struct Section {
    std::int64_t offset = 0;
    std::int64_t sizeBytes = 0;
  };
  /// Which part of the file is sent. Any thread.
  virtual Section sectionOf(const FileSource& source) const = 0;
  virtual void sendSection() = 0;
  virtual void notifyProgress(DBRestClientDelegate& delegate, DBRestClient& client, double fraction) = 0;

  template <class Derived>
  void sendContent(ServiceRequest request, void (Derived::*received)(ServiceAnswer&)) {
    request.style = ServiceRequest::Style::contentUpload;
    request.source = source_;
    reportProgress();
    send(std::move(request), received);
  }

  std::atomic<bool>& announcesHashes() const { return client_->session()->internals().announcesHashes; }
  /// Lets the service itself check the body against what was read before.
  json::object withHash(json::object argument) const {
    if (!announcedHash_.empty()) argument["content_hash"] = announcedHash_;
    return argument;
  }

  /// The reason is the local file's, where that failed.
  void preferLocalFailure(ServiceAnswer& answer) const {
    if (answer.error && source_->failure()) answer.error = source_->failure();
  }

  const std::string fromPath_;
  std::shared_ptr<FileSource> source_;
  std::string announcedHash_;  // of the body; empty: not known before it is sent

 private:
  void reportProgress() {
    source_->setProgress(progressReceiver(operation_->runLoop, [weak = weak_from_this()](double fraction) {
      const auto self = std::static_pointer_cast<Upload>(weak.lock());
      if (!self || self->operation_->cancelled) return;
      self->client_->notify([&](DBRestClientDelegate& delegate, DBRestClient& client) {
        self->notifyProgress(delegate, client, fraction);
      });
    }));
  }
};

class WholeFileUpload final : public Upload {
 public:
  WholeFileUpload(ImplRef client, const std::string& filename, const std::string& toPath,
                  std::optional<std::string> parentRev, const std::string& fromPath)
      : Upload(std::move(client), {"upload", appendingPathComponent(toPath, filename)}, fromPath),
        destination_(about_.path),
        parentRev_(std::move(parentRev)) {}

 private:
  Section sectionOf(const FileSource& source) const override { return {0, source.fileSizeBytes()}; }

  void sendSection() override {
    const auto target = servicePath(destination_);
    if (!target || target->empty()) return fail(unacceptablePathError(about_));
    if (source_->sizeBytes() > requestLimitBytes) {
      return fail(requestError(DBErrorLocalFile, "the file is too large for one request", about_));
    }
    // What has been stored damaged is replaced, wherever that was.
    json::object argument = damaged_
                                ? commitArgument(damaged_->path, damaged_->rev, source_->modificationDate())
                                : commitArgument(*target, parentRev_, source_->modificationDate());
    ServiceRequest request = rpcRequest("files/upload", withHash(std::move(argument)), about_);
    // The same bytes again change nothing, so a lost answer costs only the time.
    request.repeat = ServiceRequest::Repeat::always;
    request.takesTurn = true;
    sendContent(std::move(request), &WholeFileUpload::stored);
  }

  void stored(ServiceAnswer& answer) {
    preferLocalFailure(answer);
    if (hasErrorTag(answer.response, "content_hash_mismatch")) return sendAgain(std::move(answer));
    if (answer.error) return giveUp(std::move(answer));
    const auto document = Document::parse(answer.response.body);
    const RecordRef record = document ? storedRecord(document->root()) : nullptr;
    if (!record) return giveUp({{}, invalidResponseError(answer.response, about_), {}});
    if (isDamaged(document->root(), source_->hash())) {
      damaged_ = damagedFile(document->root(),
                             damaged_ ? damaged_->hasReplaced : replaces(parentRev_, record, destination_));
      announcesHashes() = true;
      announcedHash_ = ContentHash(source_->hash()).finish();
      return sendAgain(damagedAnswer(about_, damaged_));
    }
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.uploadedFile(client, destination_, fromPath_, record);
    });
  }

  /// After a body that was damaged on its way.
  void sendAgain(ServiceAnswer reason) {
    if (++timesDamaged_ >= RetryPolicy::maxTries) return giveUp(std::move(reason));
    sendSection();
  }

  void giveUp(ServiceAnswer reason) {
    endDamaged(client_, operation_, about_, damaged_, std::move(reason),
               [self = shared_from_this(), this](const ServiceAnswer& failed) { fail(failed); });
  }

  void notifyProgress(DBRestClientDelegate& delegate, DBRestClient& client, double fraction) override {
    delegate.uploadProgress(client, fraction, destination_, fromPath_);
  }
  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.uploadFileFailedWithError(client, error);
  }

  const std::string destination_;
  const std::optional<std::string> parentRev_;
  std::optional<DamagedFile> damaged_;  // what stands at the service until it is replaced
  int timesDamaged_ = 0;
};

/// One chunk. It is not repeated here: the caller counts the failures and decides. Only the first one waits
/// where the service asks for that, since without a session there is nothing that the caller could resume.
class ChunkUpload final : public Upload {
 public:
  ChunkUpload(ImplRef client, std::string uploadId, std::int64_t offset, const std::string& fromPath)
      : Upload(std::move(client), {"upload a part of \"" + fromPath + "\"", ""}, fromPath),
        uploadId_(std::move(uploadId)),
        offset_(uploadId_.empty() ? 0 : offset) {}

 private:
  Section sectionOf(const FileSource& source) const override {
    const std::int64_t rest = std::max<std::int64_t>(source.fileSizeBytes() - offset_, 0);
    return {offset_, std::min(rest, static_cast<std::int64_t>(DBRestClient::uploadChunkSizeBytes()))};
  }

  void sendSection() override {
    const std::int64_t size = sectionOf(*source_).sizeBytes;
    if (!uploadId_.empty() && size == 0) return nothingLeft();
    const UnfinishedUploads::Session* known = client_->uploads.find(uploadId_);
    knowsHash_ = uploadId_.empty() || (known && known->hash && known->acknowledgedBytes == offset_);
    source_->setSection(offset_, size, known && knowsHash_ ? *known->hash : ContentHash());
    sendContent(uploadId_.empty() ? startRequest() : appendRequest(), &ChunkUpload::sent);
  }

  /// The last answer was lost and the service has it all: there is nothing to send, but the caller has to
  /// learn that it can go on.
  void nothingLeft() {
    client_->uploads.correct(uploadId_, offset_);
    const UnfinishedUploads::Session* known = client_->uploads.find(uploadId_);
    finishWith(uploadId_, offset_,
               known ? known->expires : NSDate::Time::clock::now() + UnfinishedUploads::lifetime);
  }

  ServiceRequest startRequest() const {
    ServiceRequest request = rpcRequest("files/upload_session/start", withHash({{"close", false}}), about_);
    request.repeat = ServiceRequest::Repeat::whenRefused;
    return request;
  }

  ServiceRequest appendRequest() const {
    const json::object cursor{{"session_id", uploadId_}, {"offset", offset_}};
    return rpcRequest("files/upload_session/append_v2", withHash({{"cursor", cursor}, {"close", false}}),
                      about_);
  }

  void sent(ServiceAnswer& answer) {
    preferLocalFailure(answer);
    if (answer.error) return failResumably(answer);
    std::string uploadId = uploadId_;
    if (uploadId.empty()) {
      const auto document = Document::parse(answer.response.body);
      const auto session = document ? servicejson::text(document->root(), "session_id") : std::nullopt;
      if (!session || session->empty()) return failInvalid(answer.response);
      uploadId = *session;
    }
    const std::int64_t newOffset = offset_ + source_->sizeBytes();
    const auto& session =
        client_->uploads.acknowledge(uploadId, newOffset, source_->modificationDate(), hashSoFar());
    finishWith(uploadId, newOffset, session.expires);
  }

  std::optional<ContentHash> hashSoFar() const {
    return knowsHash_ && source_->isSent() ? std::optional(source_->hash()) : std::nullopt;
  }

  void finishWith(const std::string& uploadId, std::int64_t newOffset, NSDate::Time expires) {
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.uploadedFileChunk(client, uploadId, static_cast<std::uint64_t>(newOffset), fromPath_, expires);
    });
  }

  /// Adds the offset at which the upload can be resumed, if it can.
  void failResumably(ServiceAnswer& answer) {
    const auto offset = resumeOffset(answer.response);
    if (uploadId_.empty() || source_->failure() || !offset) return fail(answer);
    client_->uploads.noteAttempt(uploadId_, offset_ + source_->sizeBytes(), hashSoFar());
    if (*offset != offset_) client_->uploads.correct(uploadId_, *offset);
    RequestDescription about = about_;
    about.uploadId = uploadId_;
    about.offset = *offset;
    answer.error = errorFromResponse(answer.response, about);
    fail(answer);
  }

  std::optional<std::int64_t> resumeOffset(const HttpResponse& response) const {
    const bool mayPass = response.curlCode != 0 || response.status == 429 || response.status >= 500 ||
                         hasErrorTag(response, "content_hash_mismatch");
    return mayPass ? offset_ : correctOffset(response);
  }

 public:
  /// Where the service says that the session stands, if it says so.
  static std::optional<std::int64_t> correctOffset(const HttpResponse& response) {
    const auto document = Document::parse(response.body);
    const json::object* error = document ? servicejson::object(document->root(), "error") : nullptr;
    const json::object* lookup = error ? servicejson::object(*error, "lookup_failed") : nullptr;
    if (lookup) error = lookup;
    const auto offset = error ? servicejson::integer(*error, "correct_offset") : std::nullopt;
    return offset && *offset >= 0 ? offset : std::nullopt;
  }

 private:
  void notifyProgress(DBRestClientDelegate& delegate, DBRestClient& client, double fraction) override {
    delegate.uploadFileChunkProgress(client, fraction, uploadId_, static_cast<std::uint64_t>(offset_),
                                     fromPath_);
  }
  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.uploadFileChunkFailedWithError(client, error);
  }

  const std::string uploadId_;  // empty: the first chunk
  const std::int64_t offset_;
  bool knowsHash_ = false;
};

/// Gives a file that has been sent in chunks its place.
class UploadCommit final : public ClientOperation {
 public:
  UploadCommit(ImplRef client, const std::string& filename, const std::string& toPath,
               std::optional<std::string> parentRev, std::string uploadId)
      : ClientOperation(std::move(client),
                        {"complete the upload of", appendingPathComponent(toPath, filename)}),
        target_(servicePath(about_.path)),
        parentRev_(std::move(parentRev)),
        uploadId_(std::move(uploadId)) {}

  void start() {
    if (!target_ || target_->empty()) return failLater(unacceptablePathError(about_));
    const UnfinishedUploads::Session* known = client_->uploads.find(uploadId_);
    isKnown_ = known != nullptr;
    commit(known ? known->acknowledgedBytes : 0);
  }

 private:
  void commit(std::int64_t offset) {
    const json::object cursor{{"session_id", uploadId_}, {"offset", offset}};
    ServiceRequest request = rpcRequest(
        "files/upload_session/finish",
        {{"cursor", cursor}, {"commit", commitArgument(*target_, parentRev_, modified())}}, about_);
    request.style = ServiceRequest::Style::contentUpload;
    // The session is used up by success, so a second commit stores nothing twice; and a service in trouble
    // must not cost all that was sent.
    request.repeat = ServiceRequest::Repeat::always;
    request.shortRetries = commitRetries;
    request.takesTurn = true;
    send(std::move(request), &UploadCommit::answered);
  }

  std::optional<NSDate::Time> modified() const {
    const UnfinishedUploads::Session* known = client_->uploads.find(uploadId_);
    return known ? std::optional(known->modified) : std::nullopt;
  }

  void answered(const ServiceAnswer& answer) {
    if (answer.error) {
      // An upload that was begun elsewhere: the service tells how much it has. Where the number is known to
      // be another, something is missing, and the file must not be stored without it.
      const auto offset = ChunkUpload::correctOffset(answer.response);
      if (answer.mayHaveBeenCarriedOut && isKnown_) return lookAfter(answer);
      if (isKnown_ || !offset) return fail(answer);
      isKnown_ = true;
      return commit(*offset);
    }
    stored(answer);
  }

  /// The session may have been used up by a success whose answer was lost: when the target holds what was
  /// sent, the file has been stored.
  void lookAfter(const ServiceAnswer& lost) {
    lost_ = lost;
    send(readingRequest("files/get_metadata", {{"path", *target_}}, about_), &UploadCommit::lookedAfter);
  }

  void lookedAfter(const ServiceAnswer& now) {
    const auto document = now.error ? nullptr : Document::parse(now.response.body);
    const auto hash = document ? servicejson::text(document->root(), "content_hash") : std::nullopt;
    const UnfinishedUploads::Session* known = client_->uploads.find(uploadId_);
    const bool isThere = hash && known && known->hash && ContentHash(*known->hash).finish() == *hash;
    isThere ? stored(now) : fail(lost_);
  }

  void stored(const ServiceAnswer& answer) {
    const auto document = Document::parse(answer.response.body);
    const RecordRef record = document ? storedRecord(document->root()) : nullptr;
    if (!record) return failInvalid(answer.response);
    const UnfinishedUploads::Session* known = client_->uploads.find(uploadId_);
    const bool damaged = known && isDamaged(document->root(), known->hash);
    client_->uploads.forget(uploadId_);
    if (damaged) {
      client_->session()->internals().announcesHashes = true;
      const auto wrong = damagedFile(document->root(), replaces(parentRev_, record, about_.path));
      return endDamaged(client_, operation_, about_, wrong, damagedAnswer(about_, wrong),
                        [self = shared_from_this(), this](const ServiceAnswer& failed) { fail(failed); });
    }
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.uploadedFileFromUploadId(client, about_.path, uploadId_, record);
    });
  }

  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.uploadFromUploadIdFailedWithError(client, error);
  }

  const std::optional<std::string> target_;
  const std::optional<std::string> parentRev_;
  const std::string uploadId_;
  bool isKnown_ = false;
  ServiceAnswer lost_;
};

}  // namespace

std::uint64_t DBRestClient::uploadChunkSizeBytes() {
  static const std::uint64_t bytes = chunkSizeFromEnvironment();
  return bytes;
}

void DBRestClient::uploadFile(const std::string& filename, const std::string& toPath,
                              const std::optional<std::string>& withParentRev, const std::string& fromPath) {
  std::make_shared<WholeFileUpload>(impl_, filename, toPath, withParentRev, fromPath)->start();
}

void DBRestClient::uploadFileChunk(const std::optional<std::string>& uploadId, std::uint64_t offset,
                                   const std::string& fromPath) {
  std::make_shared<ChunkUpload>(impl_, uploadId.value_or(""), static_cast<std::int64_t>(offset), fromPath)
      ->start();
}

void DBRestClient::uploadFileFromUploadId(const std::string& filename, const std::string& toPath,
                                          const std::optional<std::string>& withParentRev,
                                          const std::string& fromUploadId) {
  std::make_shared<UploadCommit>(impl_, filename, toPath, withParentRev, fromUploadId)->start();
}
