#include "kzv/verbs/MountStatus.h"

#include <algorithm>
#include <boost/json.hpp>

#include <fmt/format.h>

#include "kzv/Console.h"
#include "kzv/Formatting.h"

namespace kzv::cli {

namespace json = boost::json;
using kzv::mount::UploadJournal;

namespace {

using State = UploadJournal::State;
using Waiting = UploadJournal::Waiting;

constexpr const char* damagedText = "its journal entry is damaged; its bytes are in ";

std::string reasonOf(const Waiting& waiting) {
  return waiting.isDamaged ? damagedText + waiting.dataPath : waiting.upload.reason;
}

std::size_t damagedCount(const State& state) {
  return static_cast<std::size_t>(std::count_if(state.waiting.begin(), state.waiting.end(),
                                                [](const Waiting& waiting) { return waiting.isDamaged; }));
}

json::object jsonOf(const Waiting& waiting) {
  json::object object{{"size", waiting.sizeBytes},
                      {"since", NSDate::iso8601(waiting.upload.since)},
                      {"file", validUtf8(waiting.dataPath)}};
  if (!waiting.isDamaged) object["path"] = validUtf8(waiting.upload.path);
  if (const std::string reason = reasonOf(waiting); !reason.empty()) object["reason"] = validUtf8(reason);
  return object;
}

std::string jsonOf(const State& state) {
  json::array waiting;
  for (const Waiting& each : state.waiting) waiting.push_back(jsonOf(each));
  return json::serialize(json::object{{"folder", validUtf8(state.mountpoint)},
                                      {"account", validUtf8(state.accountId)},
                                      {"mounted", state.isMounted},
                                      {"waiting", std::move(waiting)}});
}

std::string plain(const Waiting& waiting) {
  const std::string reason = reasonOf(waiting);
  return fmt::format("  {}  {}  since {}{}", waiting.isDamaged ? "?" : harmless(waiting.upload.path),
                     byteCount(waiting.sizeBytes), localTime(waiting.upload.since),
                     reason.empty() ? "" : "  " + harmless(reason));
}

}  // namespace

std::string fileCount(std::size_t count) { return count == 1 ? "1 file" : fmt::format("{} files", count); }

void notePending(VerbContext& context, const State& state) {
  const std::size_t count = state.waiting.size() - damagedCount(state);
  if (count > 0)
    context.console.note(
        fmt::format("{} could not be uploaded yet; {} kept in {}, and the next mount uploads {} (see: kzv "
                    "mount --status)",
                    fileCount(count), count == 1 ? "it is" : "they are", harmless(state.folder),
                    count == 1 ? "it" : "them"));
  noteDamaged(context, state);
}

void noteDamaged(VerbContext& context, const State& state) {
  if (const std::size_t count = damagedCount(state))
    context.console.note(fmt::format(
        "{} of this account can be neither uploaded nor shown: {} damaged (see: kzv mount --status)",
        fileCount(count), count == 1 ? "its journal entry is" : "their journal entries are"));
}

void showMountStatus(VerbContext& context) {
  bool isAny = false;
  for (const State& state : UploadJournal::states()) {
    if (!state.isMounted && state.waiting.empty()) continue;
    isAny = true;
    if (context.options.json) {
      context.console.line(jsonOf(state));
      continue;
    }
    context.console.line(fmt::format("{}  account {}{}{}", harmless(state.mountpoint),
                                     harmless(state.accountId), state.isMounted ? "" : "  (not mounted)",
                                     state.waiting.empty() ? "  no uploads pending" : ""));
    for (const Waiting& waiting : state.waiting) context.console.line(plain(waiting));
  }
  if (!isAny) context.console.note("nothing is mounted, and no uploads are pending");
}

}  // namespace kzv::cli
