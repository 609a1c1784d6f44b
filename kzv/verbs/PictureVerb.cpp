
#include <fmt/format.h>

#include "core/copy/LocalTarget.h"
#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostError.h"
#include "kzv/JsonLine.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

/// Writes a picture of an item: its icon, or a preview of its content.
class PictureVerb final : public Verb {
 public:
  using Picture = std::shared_ptr<NSImage> (FSPlugin::*)(const std::string&, NSErrorRef*);
  PictureVerb(Words words, Picture picture) : words_(words), picture_(picture) {}

  Words words() const override { return words_; }
  void declare(VerbArguments& arguments) override {
    arguments.value("PATH", typed_, "A file or folder of the account").required();
    arguments.value("--out", file_, "The PNG file to write; a link to one is followed")
        .required()
        .valueName("FILE");
  }

  void run(VerbContext& context) override {
    if (!context.isLocalPath(file_)) return;
    const auto volume = context.openVolume();
    if (!volume) return;
    const std::string path = context.pathFrom(typed_);
    if (path.empty()) return;
    NSErrorRef error;
    const auto place = copy::fileTarget(file_, copy::LinkAtTarget::follow, &error);
    if (!place) return context.fail(file_, error);
    const auto picture = ((*volume).*picture_)(path, &error);
    if (!picture) return context.fail(path, error ? error : noPictureError());
    if (!picture->writePNG(*place, &error)) return context.fail(file_, error);
    context.console.line(context.options.json
                             ? jsonLine({{"width", picture->width()}, {"height", picture->height()}})
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

}  // namespace kzv::cli
