#include <boost/json.hpp>
#include <functional>
#include <random>
#include <utility>

#include "foundation/Paths.h"
#include "foundation/Unicode.h"
#include "sdk/ClientInternals.h"
#include "sdk/SessionInternals.h"
#include "sdk/wire/ContentHash.h"
#include "sdk/wire/RecordReader.h"
#include "sdk/wire/ServiceJson.h"

using namespace kzv::sdk;

namespace json = boost::json;
using servicejson::Document;

namespace {

using RecordRef = DBRestClientDelegate::MetadataRef;

ServiceRequest changingRequest(std::string route, const json::object& argument, RequestDescription about) {
  ServiceRequest request = rpcRequest(std::move(route), argument, std::move(about));
  request.repeat = ServiceRequest::Repeat::whenRefused;
  return request;
}

/// The record in an answer's "metadata".
RecordRef recordAt(const HttpResponse& response, RecordReader::Kind kind) {
  const auto document = Document::parse(response.body);
  const json::object* metadata = document ? servicejson::object(document->root(), "metadata") : nullptr;
  if (!metadata) return nullptr;
  return RecordReader().record(*metadata, nullptr, kind);
}

bool isNotFound(const ServiceAnswer& answer) {
  return answer.error && hasErrorTag(answer.response, "not_found");
}

/// The record that a look at a path brought; null when there is nothing.
RecordRef recordFound(const ServiceAnswer& answer) {
  const auto document = answer.error ? nullptr : Document::parse(answer.response.body);
  return document ? RecordReader().record(document->root(), nullptr) : nullptr;
}

/// A change of the item at one path. When its answer was lost, looks at the path to find out whether it was
/// made.
class Change : public ClientOperation {
 public:
  void start() {
    if (!target_ || target_->empty()) return failLater(unacceptablePathError(about_));
    send(request(), &Change::answered);
  }

 protected:
  Change(ImplRef client, std::string action, const std::string& path)
      : ClientOperation(std::move(client), {std::move(action), path}), target_(servicePath(path)) {}

  virtual ServiceRequest request() const = 0;
  virtual void changed(const ServiceAnswer& answer) = 0;
  /// @param now  what is at the path after an answer was lost.
  /// @return whether the change was made; then the delegate has been called.
  virtual bool finishIfMade(const ServiceAnswer& now) = 0;

  const std::optional<std::string> target_;

 private:
  void answered(const ServiceAnswer& answer) {
    if (!answer.error) return changed(answer);
    if (!answer.mayHaveBeenCarriedOut) return fail(answer);
    lost_ = answer;
    send(readingRequest("files/get_metadata", {{"path", *target_}}, about_), &Change::lookedAfter);
  }

  void lookedAfter(const ServiceAnswer& now) {
    if (!finishIfMade(now)) fail(lost_);
  }

  ServiceAnswer lost_;
};

class FolderCreation final : public Change {
 public:
  FolderCreation(ImplRef client, const std::string& path)
      : Change(std::move(client), "create the folder", path) {}

 private:
  ServiceRequest request() const override {
    return changingRequest("files/create_folder_v2", {{"path", *target_}, {"autorename", false}}, about_);
  }
  void changed(const ServiceAnswer& answer) override {
    const RecordRef record = recordAt(answer.response, RecordReader::Kind::folder);
    record ? finishWith(record) : failInvalid(answer.response);
  }
  bool finishIfMade(const ServiceAnswer& now) override {
    const RecordRef record = recordFound(now);
    if (!record || !record->isDirectory()) return false;
    finishWith(record);
    return true;
  }
  void finishWith(const RecordRef& record) {
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.createdFolder(client, record);
    });
  }
  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.createFolderFailedWithError(client, error);
  }
};

class Deletion final : public Change {
 public:
  Deletion(ImplRef client, const std::string& path) : Change(std::move(client), "delete", path) {}

 private:
  ServiceRequest request() const override {
    return changingRequest("files/delete_v2", {{"path", *target_}}, about_);
  }
  void changed(const ServiceAnswer& /*answer*/) override {
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.deletedPath(client, about_.path);
    });
  }
  bool finishIfMade(const ServiceAnswer& now) override {
    if (!isNotFound(now)) return false;
    changed(now);
    return true;
  }
  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.deletePathFailedWithError(client, error);
  }
};

/// A move from one path to another. A new name that differs from the old one in letter case only is the same
/// name to the service, so the item takes a detour through a name of its own beside the target. Once it has
/// left its old name the second half is carried out even if the client is destroyed: nobody would look for it
/// under the other name.
class Move final : public ClientOperation {
 public:
  Move(ImplRef client, const std::string& from, const std::string& to)
      : ClientOperation(std::move(client), {"move", from}), from_(servicePath(from)), to_(servicePath(to)) {}

  void start() {
    if (!from_ || !to_ || from_->empty() || to_->empty()) {
      failLater(unacceptablePathError(about_));
    } else if (*from_ != *to_ && caselessKey(*from_) == caselessKey(*to_)) {
      startDetour();
    } else {
      send(request(*from_, *to_), &Move::ended);
    }
  }

 private:
  ServiceRequest request(const std::string& from, const std::string& to) const {
    return changingRequest(
        "files/move_v2",
        {{"from_path", from}, {"to_path", to}, {"autorename", false}, {"allow_ownership_transfer", false}},
        about_);
  }

  /// A name beside the target that nobody else uses, within what the service takes as one.
  static std::string nameForDetour(const std::string& target) {
    constexpr std::size_t longestName = 200;  // of 255 characters, some of which count twice
    std::random_device random;
    const std::string suffix = " (renaming " + std::to_string(random()) + ")";
    std::string name = lastPathComponent(target);
    while (utf16(name).size() > longestName) name = withoutLastCharacter(name);
    return appendingPathComponent(deletingLastPathComponent(target), name + suffix);
  }

  using Step = void (Move::*)(ServiceAnswer&);

  /// Sends outside of the operation, so that cancelling it does not stop halfway.
  void sendUncancelled(ServiceRequest request, Step next) {
    ServiceCall::start(client_->session()->internals().shared_from_this(),
                       {client_->userId().value_or(""), ""}, std::move(request), nullptr, handler(next));
  }

  void lookUncancelled(const std::string& path, Step next) {
    sendUncancelled(readingRequest("files/get_metadata", {{"path", path}}, about_), next);
  }

  void startDetour() {
    if (!client_->userId() || client_->userId()->empty()) {
      return send(request(*from_, *to_), &Move::ended);  // fails as every request without an account
    }
    work_ = client_->session()->internals().backgroundWork();
    detour_ = nameForDetour(*to_);
    sendUncancelled(request(*from_, detour_), &Move::leftOldName);
  }

  void leftOldName(ServiceAnswer& answer) {
    if (!answer.error) return arrive();
    failure_ = std::move(answer);
    if (!failure_.mayHaveBeenCarriedOut) return deliver(failure_);
    lookUncancelled(detour_, &Move::lookedForDetour);
  }

  void lookedForDetour(ServiceAnswer& found) {
    if (!found.error) return arrive();
    if (!isNotFound(found)) sayWhereItMayBe();
    deliver(failure_);
  }

  void arrive() { sendUncancelled(request(detour_, *to_), &Move::arrived); }

  void arrived(ServiceAnswer& answer) {
    if (!answer.error) return deliver(answer);
    failure_ = std::move(answer);
    if (!failure_.mayHaveBeenCarriedOut) return comeBack();
    lookUncancelled(detour_, &Move::lookedWhetherArrived);
  }

  void lookedWhetherArrived(ServiceAnswer& found) {
    if (!isNotFound(found)) return comeBack();
    lookUncancelled(*to_, &Move::lookedAtTarget);
  }

  void lookedAtTarget(ServiceAnswer& found) {
    moved_ = recordFound(found);
    deliver(moved_ ? found : failure_);
  }

  void comeBack() { sendUncancelled(request(detour_, *from_), &Move::cameBack); }

  void cameBack(ServiceAnswer& answer) {
    if (!answer.error) return deliver(failure_);
    lookUncancelled(detour_, &Move::lookedWhetherBack);
  }

  void lookedWhetherBack(ServiceAnswer& found) {
    if (!isNotFound(found)) sayWhereItMayBe();
    deliver(failure_);
  }

  void sayWhereItMayBe() {
    failure_.error = requestError(
        static_cast<int>(failure_.error->code()),
        "the item may now be named \"" + lastPathComponent(detour_) + "\" and could not be named back",
        about_);
  }

  /// From the network thread to the thread of the callbacks.
  void deliver(ServiceAnswer& answer) {
    client_->performLater(operation_, [ended = handler(&Move::ended), answer]() mutable { ended(answer); });
    work_.reset();
  }

  void ended(const ServiceAnswer& answer) {
    if (answer.error && answer.mayHaveBeenCarriedOut && detour_.empty()) return lookAfter(answer);
    if (answer.error) return fail(answer);
    const RecordRef record = moved_ ? moved_ : recordAt(answer.response, RecordReader::Kind::byTag);
    record ? finishWith(record) : failInvalid(answer.response);
  }

  /// The item has been moved when it is no longer at the old place and something is at the new one.
  void lookAfter(const ServiceAnswer& lost) {
    failure_ = lost;
    lookAt(*from_, &Move::lookedAtSource);
  }

  void lookedAtSource(const ServiceAnswer& found) {
    if (!isNotFound(found)) return fail(failure_);
    lookAt(*to_, &Move::lookedForResult);
  }

  void lookedForResult(const ServiceAnswer& found) {
    const RecordRef record = recordFound(found);
    record ? finishWith(record) : fail(failure_);
  }

  void lookAt(const std::string& path, void (Move::*received)(const ServiceAnswer&)) {
    send(readingRequest("files/get_metadata", {{"path", path}}, about_), received);
  }

  void finishWith(const RecordRef& record) {
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.movedPath(client, about_.path, record);
    });
  }

  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.movePathFailedWithError(client, error);
  }

  const std::optional<std::string> from_;
  const std::optional<std::string> to_;
  std::string detour_;
  ServiceAnswer failure_;
  RecordRef moved_;             // set when the answer was lost, but the item has arrived
  std::shared_ptr<void> work_;  // a program that ends waits for the second half
};

}  // namespace

void DBRestClient::createFolder(const std::string& path) {
  std::make_shared<FolderCreation>(impl_, path)->start();
}

void DBRestClient::deletePath(const std::string& path) { std::make_shared<Deletion>(impl_, path)->start(); }

void DBRestClient::moveFrom(const std::string& path, const std::string& toPath) {
  std::make_shared<Move>(impl_, path, toPath)->start();
}
