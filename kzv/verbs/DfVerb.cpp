
#include "foundation/NSByteCountFormatter.h"
#include "kzv/Console.h"
#include "kzv/HostError.h"
#include "kzv/HostSession.h"
#include "kzv/JsonLine.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class DfVerb final : public Verb {
 public:
  Words words() const override { return {"df", "Show the account's space", "  kzv df\n  kzv --json df"}; }
  void declare(VerbArguments& /*arguments*/) override {}

  void run(VerbContext& context) override {
    const auto volume = context.openVolume();
    if (!volume) return;
    NSErrorRef error;
    const auto space = volume->space(&error);
    if (!space && !error && context.session.isVolumeLinked())
      error = hostError(HostErrorCode::notSupported, "this volume does not report its space");
    if (!space) return context.fail("", error);
    if (context.options.json)
      return context.console.line(jsonLine({{"total", space->totalBytes}, {"free", space->freeBytes}}));
    context.console.line("total  " + stringFromByteCount(space->totalBytes));
    context.console.line("free   " + stringFromByteCount(space->freeBytes));
  }
};

}  // namespace

std::unique_ptr<Verb> makeDfVerb() { return std::make_unique<DfVerb>(); }

}  // namespace kzv::cli
