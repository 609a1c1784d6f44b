#include "standin/Encoding.h"
#include "standin/api/ApiError.h"
#include "standin/api/Commit.h"
#include "standin/api/Routes.h"
#include "standin/store/Bodies.h"
#include "standin/store/UploadSessions.h"

namespace kzv::standin {
namespace {

using Problem = UploadSessions::Problem;
using Outcome = UploadSessions::Outcome;
using Piece = UploadSessions::Piece;

constexpr std::size_t kMaxBatch = 1000;

Route uploadRoute(std::function<Endpoint(const ArgReader&)> decode) {
  Route made;
  made.style = RouteStyle::upload;
  made.scope = "files.content.write";
  made.decode = std::move(decode);
  return made;
}

[[noreturn]] void failIncomplete() { throw ApiError(textResponse(400, "The request body is incomplete.")); }

// --- upload

void receiveBody(Call& call, IncomingBody& body) {
  bool tooLarge = false;
  const bool complete = call.request.readBody([&](std::string_view bytes) {
    tooLarge = tooLarge || body.sizeBytes() + bytes.size() > UploadSessions::kMaxBodyBytes;
    // Read to the end even if too large, so that the client receives the answer.
    if (!tooLarge) body.append(bytes);
    return true;
  });
  if (!complete) failIncomplete();
  if (tooLarge) failEndpoint({"payload_too_large"});
}

// Keeps the bytes in a session, so that the client need not send them again.
std::string keepInSession(Call& call, const IncomingBody& body) {
  Piece piece;
  piece.session = call.state.uploads.start(call.account->id, false);
  piece.account = call.account->id;
  piece.body = [&](const std::function<bool(std::string_view)>& sink) { return body.replay(sink); };
  call.state.uploads.append(piece);
  return piece.session;
}

[[noreturn]] void failUpload(Call& call, const WriteRefused& refused, const IncomingBody& body) {
  Tags summary{"path"};
  summary.insert(summary.end(), refused.tags().begin(), refused.tags().end());
  JsonWriter error;
  error.beginObject().field(".tag", "path").key("reason").raw(nestedTags(refused.tags()));
  error.field("upload_session_id", std::string_view(keepInSession(call, body))).endObject();
  failEndpoint(summary, error.text());
}

void upload(Call& call, const CommitArg& arg, const std::string& contentHash) {
  IncomingBody body(call.state.store.incomingFolder());
  receiveBody(call, body);
  const std::string digest = body.digest();
  if (!contentHash.empty() && hexEncode(digest) != contentHash) failEndpoint({"content_hash_mismatch"});
  try {
    call.reply(commitFile(call, arg, {body.sizeBytes(), digest, [&](Store::Writer& writer) {
                                        return storeContent(writer, body);
                                      }}));
  } catch (const WriteRefused& refused) {
    failUpload(call, refused, body);
  }
}

Endpoint decodeUpload(const ArgReader& reader) {
  const CommitArg arg = decodeCommitArg(reader);
  const std::string contentHash = reader.optionalHash("content_hash").value_or("");
  reader.done();
  return [=](Call& call) { upload(call, arg, contentHash); };
}

// --- sessions

const char* problemTag(Problem problem) {
  switch (problem) {
    case Problem::notFound:
      return "not_found";
    case Problem::incorrectOffset:
      return "incorrect_offset";
    case Problem::closed:
      return "closed";
    case Problem::notClosed:
      return "not_closed";
    case Problem::tooLarge:
      return "too_large";
    case Problem::payloadTooLarge:
      return "payload_too_large";
    case Problem::hashMismatch:
      return "content_hash_mismatch";
    case Problem::invalidOffset:
      return "concurrent_session_invalid_offset";
    case Problem::invalidDataSize:
      return "concurrent_session_invalid_data_size";
    case Problem::dataNotAllowed:
      return "concurrent_session_data_not_allowed";
    case Problem::notClosedConcurrent:
      return "concurrent_session_not_closed";
    case Problem::missingData:
      return "concurrent_session_missing_data";
    case Problem::none:
    case Problem::incompleteBody:
      break;
  }
  return "other";
}

std::string problemJson(const Outcome& outcome) {
  JsonWriter json;
  json.beginObject().field(".tag", problemTag(outcome.problem));
  if (outcome.problem == Problem::incorrectOffset) {
    json.field("correct_offset", static_cast<std::int64_t>(outcome.correctOffset));
  }
  json.endObject();
  return json.take();
}

void checkAppended(const Outcome& outcome) {
  if (outcome.problem == Problem::none) return;
  if (outcome.problem == Problem::incompleteBody) failIncomplete();
  failEndpoint({problemTag(outcome.problem)}, problemJson(outcome));
}

// Errors about the session are nested in lookup_failed, those about the request are not.
bool isLookupProblem(Problem problem) {
  return problem == Problem::notFound || problem == Problem::incorrectOffset || problem == Problem::closed ||
         problem == Problem::notClosed || problem == Problem::tooLarge;
}

std::string finishProblemJson(const Outcome& outcome) {
  if (!isLookupProblem(outcome.problem)) return problemJson(outcome);
  JsonWriter json;
  json.beginObject()
      .field(".tag", "lookup_failed")
      .key("lookup_failed")
      .raw(problemJson(outcome))
      .endObject();
  return json.take();
}

// May stop reading after an error: the server discards the rest.
UploadSessions::Body bodyOf(Call& call) {
  return [&call](const std::function<bool(std::string_view)>& sink) { return call.request.readBody(sink); };
}

struct StartArg {
  bool close = false;
  bool concurrent = false;
  std::string contentHash;
};

void startSession(Call& call, const StartArg& arg) {
  IncomingBody body(call.state.store.incomingFolder());
  receiveBody(call, body);
  if (arg.concurrent && body.sizeBytes() > 0) failEndpoint({"concurrent_session_data_not_allowed"});
  if (arg.concurrent && arg.close) failEndpoint({"concurrent_session_close_not_allowed"});
  if (!arg.contentHash.empty() && hexEncode(body.digest()) != arg.contentHash)
    failEndpoint({"content_hash_mismatch"});
  Piece piece;
  piece.session = call.state.uploads.start(call.account->id, arg.concurrent);
  piece.account = call.account->id;
  piece.close = arg.close;
  piece.body = [&](const std::function<bool(std::string_view)>& sink) { return body.replay(sink); };
  if (!arg.concurrent) checkAppended(call.state.uploads.append(piece));
  JsonWriter json;
  json.beginObject().field("session_id", piece.session).endObject();
  call.reply(json.take());
}

Endpoint decodeStart(const ArgReader& reader) {
  StartArg arg;
  arg.close = reader.boolean("close", false);
  arg.concurrent = reader.tag("session_type", {"sequential", "concurrent"}, "sequential") == "concurrent";
  arg.contentHash = reader.optionalHash("content_hash").value_or("");
  reader.done();
  return [arg](Call& call) { startSession(call, arg); };
}

Piece decodePiece(const ArgReader& reader) {
  Piece piece;
  const ArgReader cursor = reader.requiredObject("cursor");
  piece.session = cursor.requiredString("session_id");
  piece.offset = cursor.requiredUnsigned("offset", 0, UINT64_MAX);
  cursor.done();
  return piece;
}

Endpoint decodeAppend(const ArgReader& reader) {
  Piece piece = decodePiece(reader);
  piece.close = reader.boolean("close", false);
  piece.contentHash = reader.optionalHash("content_hash").value_or("");
  reader.done();
  return [piece](Call& call) {
    Piece mine = piece;
    mine.account = call.account->id;
    mine.body = bodyOf(call);
    checkAppended(call.state.uploads.append(mine));
    call.reply("null");
  };
}

struct FinishArg {
  Piece piece;
  CommitArg commit;
};

// Commits the session's bytes. Throws WriteRefused, ApiError; the session is then unchanged.
std::string commitReady(Call& call, const FinishArg& arg, const UploadSessions::Ready& ready) {
  std::string made = commitFile(call, arg.commit, {ready.sizeBytes, ready.hash, [&](Store::Writer& writer) {
                                                     return storeContentFile(writer, ready.file, ready.hash,
                                                                             ready.sizeBytes);
                                                   }});
  call.state.uploads.remove(arg.piece.session);
  return made;
}

void finishSession(Call& call, FinishArg arg) {
  arg.piece.account = call.account->id;
  arg.piece.body = bodyOf(call);
  UploadSessions::Ready ready;
  const Outcome outcome = call.state.uploads.prepareFinish(arg.piece, false, ready);
  if (outcome.problem == Problem::incompleteBody) failIncomplete();
  if (outcome.problem != Problem::none) {
    Tags summary;
    if (isLookupProblem(outcome.problem)) summary.emplace_back("lookup_failed");
    summary.emplace_back(problemTag(outcome.problem));
    failEndpoint(summary, finishProblemJson(outcome));
  }
  try {
    call.reply(commitReady(call, arg, ready));
  } catch (const WriteRefused& refused) {
    Tags tags{"path"};
    tags.insert(tags.end(), refused.tags().begin(), refused.tags().end());
    failEndpoint(tags);
  }
}

FinishArg decodeFinishArg(const ArgReader& reader) {
  FinishArg arg;
  arg.piece = decodePiece(reader);
  const ArgReader commit = reader.requiredObject("commit");
  arg.commit = decodeCommitArg(commit);
  commit.done();
  arg.piece.contentHash = reader.optionalHash("content_hash").value_or("");
  reader.done();
  return arg;
}

Endpoint decodeFinish(const ArgReader& reader) {
  return [arg = decodeFinishArg(reader)](Call& call) { finishSession(call, arg); };
}

// --- finish_batch_v2

std::string failureJson(std::string_view error) {
  JsonWriter json;
  json.beginObject().field(".tag", "failure").key("failure").raw(error).endObject();
  return json.take();
}

std::string finishOne(Call& call, FinishArg arg) {
  arg.piece.account = call.account->id;
  UploadSessions::Ready ready;
  const Outcome outcome = call.state.uploads.prepareFinish(arg.piece, true, ready);
  if (outcome.problem != Problem::none) return failureJson(finishProblemJson(outcome));
  try {
    return "{\".tag\":\"success\"," + commitReady(call, arg, ready).substr(1);
  } catch (const WriteRefused& refused) {
    Tags tags{"path"};
    tags.insert(tags.end(), refused.tags().begin(), refused.tags().end());
    return failureJson(nestedTags(tags));
  } catch (const ApiError& error) {
    if (error.response().status != 429) throw;
    return failureJson(nestedTags({"too_many_write_operations"}));
  }
}

Endpoint decodeFinishBatch(const ArgReader& reader) {
  std::vector<FinishArg> entries;
  for (const ArgReader& entry : reader.requiredObjects("entries", kMaxBatch))
    entries.push_back(decodeFinishArg(entry));
  reader.done();
  return [entries](Call& call) {
    JsonWriter json;
    json.beginObject().key("entries").beginArray();
    for (const FinishArg& entry : entries) json.raw(finishOne(call, entry));
    json.endArray().endObject();
    call.reply(json.take());
  };
}

}  // namespace

void addUploadRoutes(RouteTable& table) {
  table.api["files/upload"] = uploadRoute(decodeUpload);
  table.api["files/upload_session/start"] = uploadRoute(decodeStart);
  table.api["files/upload_session/append_v2"] = uploadRoute(decodeAppend);
  table.api["files/upload_session/finish"] = uploadRoute(decodeFinish);
  Route batch = uploadRoute(decodeFinishBatch);
  batch.style = RouteStyle::rpc;
  table.api["files/upload_session/finish_batch_v2"] = std::move(batch);
}

}  // namespace kzv::standin
