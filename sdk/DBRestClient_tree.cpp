#include <functional>
#include <random>
#include <utility>

#include "foundation/Paths.h"
#include "foundation/Unicode.h"
#include "sdk/ContentHash.h"
#include "sdk/DBRestClientImpl.h"
#include "sdk/RecordReader.h"
#include "sdk/ServiceJson.h"
#include "sdk/SessionInternals.h"

namespace json = boost::json;
using servicejson::Document;

namespace {

using ImplRef = std::shared_ptr<DBRestClient::Impl>;
using OperationRef = DBRestClient::Impl::OperationRef;
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

/// Asks what is at `path` now. For a change whose answer was lost.
void lookAt(const ImplRef& client, const OperationRef& operation, const std::string& path,
            const RequestDescription& about, std::function<void(ServiceAnswer&)> handler) {
  client->send(operation, readingRequest("files/get_metadata", {{"path", path}}, about), std::move(handler));
}

bool isNotFound(const ServiceAnswer& answer) {
  return answer.error && hasErrorTag(answer.response, "not_found");
}

/// The record that a look at a path brought; null when there is nothing.
RecordRef recordFound(const ServiceAnswer& answer) {
  const auto document = answer.error ? nullptr : Document::parse(answer.response.body);
  return document ? RecordReader().record(document->root(), nullptr) : nullptr;
}

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

/// Length in UTF-16 code units, which is how the service counts a name.
std::size_t utf16Length(std::string_view utf8) {
  std::size_t units = 0;
  for (const char byte : utf8) {
    constexpr unsigned char firstOfFourBytes = 0xF0;
    if (!isContinuation(byte)) units += static_cast<unsigned char>(byte) >= firstOfFourBytes ? 2 : 1;
  }
  return units;
}

void removeLastCharacter(std::string& utf8) {
  while (!utf8.empty() && isContinuation(utf8.back())) utf8.pop_back();
  if (!utf8.empty()) utf8.pop_back();
}

/// A move from one path to another. A new name that differs from the old one in letter case only is the same
/// name to the service, so the item takes a detour through a name of its own beside the target. Once it has
/// left its old name the second half is carried out whatever becomes of the client: nobody would look for it
/// under the other name.
class Move : public std::enable_shared_from_this<Move> {
 public:
  Move(ImplRef client, const std::string& from, const std::string& to)
      : client_(std::move(client)),
        operation_(client_->beginOperation()),
        about_{"move", from},
        fromPath_(from),
        from_(servicePath(from)),
        to_(servicePath(to)) {}

  void start() {
    if (!from_ || !to_ || from_->empty() || to_->empty()) {
      const NSErrorRef error = unacceptablePathError(about_);
      client_->performLater(operation_, [self = shared_from_this(), error] { self->fail({{}, error, {}}); });
    } else if (*from_ != *to_ && caselessKey(*from_) == caselessKey(*to_)) {
      startDetour();
    } else {
      client_->send(operation_, request(*from_, *to_),
                    [self = shared_from_this()](ServiceAnswer& answer) { self->ended(answer); });
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
    while (utf16Length(name) > longestName) removeLastCharacter(name);
    return appendingPathComponent(deletingLastPathComponent(target), name + suffix);
  }

  using Step = void (Move::*)(ServiceAnswer&);

  /// Sends outside of the operation, so that cancelling it does not stop halfway.
  void sendUncancelled(ServiceRequest request, Step next) {
    ServiceCall::start(
        client_->session()->internals().shared_from_this(), {client_->userId().value_or(""), ""},
        std::move(request), nullptr,
        [self = shared_from_this(), next](ServiceAnswer& answer) { (self.get()->*next)(answer); });
  }

  void lookUncancelled(const std::string& path, Step next) {
    sendUncancelled(readingRequest("files/get_metadata", {{"path", path}}, about_), next);
  }

  void startDetour() {
    if (!client_->userId() || client_->userId()->empty()) {
      client_->send(operation_, request(*from_, *to_),  // ends as every request without an account
                    [self = shared_from_this()](ServiceAnswer& answer) { self->ended(answer); });
      return;
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
    client_->performLater(operation_, [self = shared_from_this(), answer] { self->ended(answer); });
    work_.reset();
  }

  void ended(const ServiceAnswer& answer) {
    if (answer.error && answer.mayHaveBeenCarriedOut && detour_.empty()) return lookAfter(answer);
    if (answer.error) return fail(answer);
    if (moved_) return finish(moved_);
    const RecordRef record = recordAt(answer.response, RecordReader::Kind::byTag);
    if (!record) return fail({{}, invalidResponseError(answer.response, about_), {}});
    finish(record);
  }

  /// The item has been moved when it is no longer at the old place and something is at the new one.
  void lookAfter(const ServiceAnswer& lost) {
    lookAt(client_, operation_, *from_, about_, [self = shared_from_this(), lost](ServiceAnswer& old) {
      if (!isNotFound(old)) return self->fail(lost);
      lookAt(self->client_, self->operation_, *self->to_, self->about_, [self, lost](ServiceAnswer& now) {
        const RecordRef record = recordFound(now);
        record ? self->finish(record) : self->fail(lost);
      });
    });
  }

  void finish(const RecordRef& record) {
    client_->finish(operation_, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.movedPath(client, fromPath_, record);
    });
  }

  void fail(const ServiceAnswer& answer) {
    client_->fail(operation_, answer, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.movePathFailedWithError(client, answer.error);
    });
  }

  const ImplRef client_;
  const OperationRef operation_;
  const RequestDescription about_;
  const std::string fromPath_;
  const std::optional<std::string> from_;
  const std::optional<std::string> to_;
  std::string detour_;
  ServiceAnswer failure_;
  RecordRef moved_;             // set when the answer was lost, but the item has arrived
  std::shared_ptr<void> work_;  // a program that ends waits for the second half
};

}  // namespace

void DBRestClient::createFolder(const std::string& path) {
  const auto operation = impl_->beginOperation();
  const RequestDescription about{"create the folder", path};
  const auto fail = [impl = impl_, operation](const ServiceAnswer& answer) {
    impl->fail(operation, answer, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.createFolderFailedWithError(client, answer.error);
    });
  };
  const auto finish = [impl = impl_, operation](const RecordRef& record) {
    impl->finish(operation, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.createdFolder(client, record);
    });
  };
  const auto target = servicePath(path);
  if (!target || target->empty()) {
    impl_->performLater(operation, [fail, about] { fail({{}, unacceptablePathError(about), {}}); });
    return;
  }
  impl_->send(operation,
              changingRequest("files/create_folder_v2", {{"path", *target}, {"autorename", false}}, about),
              [impl = impl_, operation, fail, finish, about, target](ServiceAnswer& answer) {
                if (answer.error && answer.mayHaveBeenCarriedOut) {
                  return lookAt(impl, operation, *target, about,
                                [fail, finish, target, lost = answer](ServiceAnswer& now) {
                                  const RecordRef record = recordFound(now);
                                  record && record->isDirectory() ? finish(record) : fail(lost);
                                });
                }
                if (answer.error) return fail(answer);
                const RecordRef record = recordAt(answer.response, RecordReader::Kind::folder);
                record ? finish(record) : fail({{}, invalidResponseError(answer.response, about), {}});
              });
}

void DBRestClient::deletePath(const std::string& path) {
  const auto operation = impl_->beginOperation();
  const RequestDescription about{"delete", path};
  const auto fail = [impl = impl_, operation](const ServiceAnswer& answer) {
    impl->fail(operation, answer, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.deletePathFailedWithError(client, answer.error);
    });
  };
  const auto finish = [impl = impl_, operation, path] {
    impl->finish(operation, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.deletedPath(client, path);
    });
  };
  const auto target = servicePath(path);
  if (!target || target->empty()) {
    impl_->performLater(operation, [fail, about] { fail({{}, unacceptablePathError(about), {}}); });
    return;
  }
  impl_->send(operation, changingRequest("files/delete_v2", {{"path", *target}}, about),
              [impl = impl_, operation, fail, finish, about, target](ServiceAnswer& answer) {
                if (answer.error && answer.mayHaveBeenCarriedOut) {
                  return lookAt(impl, operation, *target, about,
                                [fail, finish, lost = answer](ServiceAnswer& now) {
                                  isNotFound(now) ? finish() : fail(lost);
                                });
                }
                answer.error ? fail(answer) : finish();
              });
}

void DBRestClient::moveFrom(const std::string& path, const std::string& toPath) {
  std::make_shared<Move>(impl_, path, toPath)->start();
}
