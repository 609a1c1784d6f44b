#include <CLI/CLI.hpp>
#include <boost/json.hpp>

#include "foundation/NSByteCountFormatter.h"
#include "host/Console.h"
#include "host/HostError.h"
#include "host/HostSession.h"
#include "host/verbs/Verbs.h"

namespace {

class DfVerb final : public Verb {
 public:
  Words words() const override { return {"df", "Show the account's space", "  kzv df\n  kzv --json df"}; }
  void declare(CLI::App& /*command*/) override {}

  void run(VerbContext& context) override {
    const auto volume = context.openVolume();
    if (!volume) return;
    NSErrorRef error;
    const auto space = volume->space(&error);
    if (!space && !error && context.session.isVolumeLinked())
      error = hostError(HostErrorCode::notSupported, "this volume does not say how much space it has");
    if (!space) return context.fail("", error);
    if (context.options.json) {
      return context.console.line(boost::json::serialize(
          boost::json::object{{"total", space->totalBytes}, {"free", space->freeBytes}}));
    }
    context.console.line("total  " + stringFromByteCount(space->totalBytes));
    context.console.line("free   " + stringFromByteCount(space->freeBytes));
  }
};

}  // namespace

std::unique_ptr<Verb> makeDfVerb() { return std::make_unique<DfVerb>(); }
