#include <CLI/CLI.hpp>
#include <boost/json.hpp>

#include <fmt/format.h>

#include "core/LocalTarget.h"
#include "host/Console.h"
#include "host/Formatting.h"
#include "host/HostError.h"
#include "host/verbs/Verbs.h"

namespace {

/// Writes a picture that the volume has for an item: its icon, or a preview of what is in it.
class PictureVerb final : public Verb {
 public:
  using Picture = std::shared_ptr<NSImage> (FSPlugin::*)(const std::string&, NSErrorRef*);
  PictureVerb(Words words, Picture picture) : words_(words), picture_(picture) {}

  Words words() const override { return words_; }
  void declare(CLI::App& command) override {
    command.add_option("PATH", typed_, "A file or folder of the account")->required();
    command.add_option("--out", file_, "The PNG file to write; a link to one is followed")
        ->required()
        ->option_text("FILE");
  }

  void run(VerbContext& context) override {
    if (!context.isLocalPath(file_)) return;
    const auto volume = context.openVolume();
    if (!volume) return;
    const std::string path = context.pathFrom(typed_);
    if (path.empty()) return;
    NSErrorRef error;
    const auto place = fileTarget(file_, LinkAtTarget::follow, &error);
    if (!place) return context.fail(file_, error);
    const auto picture = ((*volume).*picture_)(path, &error);
    if (!picture) return context.fail(path, error ? error : noPictureError());
    if (!picture->writePNG(*place, &error)) return context.fail(file_, error);
    context.console.line(context.options.json
                             ? boost::json::serialize(boost::json::object{{"width", picture->width()},
                                                                          {"height", picture->height()}})
                             : fmt::format("{} x {} pixels", picture->width(), picture->height()));
  }

 private:
  static NSErrorRef noPictureError() {
    return hostError(HostErrorCode::internal, "there is no such picture for this item");
  }

  const Words words_;
  const Picture picture_;
  std::string typed_;
  std::string file_;
};

}  // namespace

std::unique_ptr<Verb> makeIconVerb() {
  return std::make_unique<PictureVerb>(
      Verb::Words{"icon", "Write an item's icon as PNG", "  kzv icon /Documents --out folder.png"},
      &FSPlugin::icon);
}

std::unique_ptr<Verb> makePreviewVerb() {
  return std::make_unique<PictureVerb>(Verb::Words{"preview", "Write a preview of a picture as PNG",
                                                   "  kzv preview /Photos/a.jpg --out a.png"},
                                       &FSPlugin::preview);
}
