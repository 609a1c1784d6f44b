#include "kzv/TransferReport.h"

#include <fmt/format.h>

#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostError.h"
#include "kzv/JsonLine.h"
#include "kzv/StopSignal.h"

namespace kzv::cli {

using namespace std::chrono_literals;

namespace {
/// Stopping a batch takes a fraction of a second, unless the disk or the machine is very busy.
constexpr auto stopGrace = 5s;
}  // namespace

TransferReport::TransferReport(VerbContext& context, const KZVBatchId& batchId, Direction direction)
    : context_(context), batchId_(batchId), direction_(direction) {
  StopSignal::whenRequested([] {}, stopGrace);
}

TransferReport::~TransferReport() { StopSignal::whenRequested(nullptr, {}); }

ProgressCallback TransferReport::totalProgress() {
  return [this](NSRange) {
    draw();
    return !StopSignal::isRequested();
  };
}

KZVLocalFS::ItemCopied TransferReport::itemCopied() {
  return [this](const copy::CopiedItem& item) {
    if (item.failure) {
      hasReportedFailure_ = true;
      context_.fail(item.from, item.failure);
    } else if (!item.isDirectory) {
      ++filesCopied_;
      bytesCopied_ += item.sizeBytes;
      showCopied(item);
    }
    return !StopSignal::isRequested();
  };
}

void TransferReport::draw() {
  Console& console = context_.console;
  const auto now = Clock::now();
  if (!console.showsProgress() || now - lastDrawn_ < 100ms) return;
  const auto counts = KZVLocalFS::counts(batchId_);
  if (!counts) return;
  lastDrawn_ = now;
  rate_.add(counts->bytesDone, now);
  console.progress(progressLine(*counts, rate_.bytesPerSecond(), Console::progressWidth()));
}

void TransferReport::showCopied(const copy::CopiedItem& item) {
  const std::string& remote = direction_ == Direction::toDisk ? item.from : item.to;
  if (context_.options.json) {
    std::vector<JsonField> fields{{"path", remote}, {"size", item.sizeBytes}};
    if (!item.conflictsWith.empty()) fields.push_back({"conflicts_with", item.conflictsWith});
    context_.console.line(jsonLine(fields));
  } else if (!context_.options.quiet && !context_.console.showsProgress()) {
    context_.console.line(fmt::format("{}  {}", harmless(remote), byteCount(item.sizeBytes)));
  }
  context_.console.flush();  // so that each file is shown as soon as it is complete
  if (item.conflictsWith.empty()) return;
  // Even with --quiet: there are two files now.
  context_.console.error(fmt::format("kzv: put: {}: was changed elsewhere meanwhile; stored beside it as {}",
                                     harmless(item.conflictsWith), harmless(item.to)));
}

void TransferReport::finish(bool isComplete, const NSErrorRef& error, const std::string& subject) {
  Console& console = context_.console;
  console.progress("");
  // A stop is reported even after failed items: it decides the exit status.
  if (!isComplete && (!hasReportedFailure_ || (error && isStop(*error)))) context_.fail(subject, error);
  if (!console.showsProgress() || context_.options.json) return;
  const auto needed = std::chrono::ceil<std::chrono::seconds>(Clock::now() - start_);
  console.note(fmt::format("{} {}, {} in {}", filesCopied_, filesCopied_ == 1 ? "file" : "files",
                           byteCount(bytesCopied_), duration(needed)));
}

}  // namespace kzv::cli
