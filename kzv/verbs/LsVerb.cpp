#include <algorithm>

#include <fmt/format.h>

#include "kzv/Console.h"
#include "kzv/Entry.h"
#include "kzv/Formatting.h"
#include "kzv/StopSignal.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class LsVerb final : public Verb {
 public:
  Words words() const override {
    return {"ls", "List folders", "  kzv ls -l /Documents\n  kzv --json ls -R / | jq -r .path"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.flag("-l", isLong_, "Sizes (bytes) and dates, too");
    arguments.flag("-R", isRecursive_, "Everything below the folder, with full paths");
    arguments.values("PATH", typed_, "Folders or files of the account (default: the current one)");
  }

  void run(VerbContext& context) override {
    const auto volume = context.openVolume();
    if (!volume) return;
    if (typed_.empty()) typed_.emplace_back(".");
    bool isFirst = true;
    for (const std::string& typed : typed_) {
      const std::string path = context.pathFrom(typed);
      if (path.empty()) continue;
      if (context.shouldStop(path)) return;
      if (needsHeading(context)) {
        context.console.line(fmt::format("{}{}:", isFirst ? "" : "\n", harmless(path)));
        isFirst = false;
      }
      list(context, *volume, path);
      if (context.shouldStop(path)) return;
    }
  }

 private:
  bool needsHeading(const VerbContext& context) const {
    return typed_.size() > 1 && !isRecursive_ && !context.options.json;
  }

  /// Recursion happens here and not in the plug-in, folder by folder: one folder that fails does not cost all
  /// others.
  void list(VerbContext& context, FSPlugin& volume, const std::string& top) {
    if (isRecursive_) volume.prepareToListTree(top, anyNumberOfItems);
    if (!listFolder(context, volume, top)) return;
    while (!pending_.empty()) {
      const std::shared_ptr<FSItem> item = std::move(pending_.back());
      pending_.pop_back();
      if (context.shouldStop(item->path())) break;
      show(context, {Entry::from(*item)});
      if (item->isDirectory()) listFolder(context, volume, item->path());
    }
    pending_.clear();
  }

  bool listFolder(VerbContext& context, FSPlugin& volume, const std::string& path) {
    if (isRecursive_) context.console.flush();  // the next answer may take long
    NSErrorRef error;
    auto items = volume.contentAtPath(path, false, true, &error);
    if (!items) return showFile(context, volume, path, error);
    if (isRecursive_) {
      // The last one pushed is shown next, so that a folder's own items follow it in their order.
      pending_.insert(pending_.end(), std::make_move_iterator(items->rbegin()),
                      std::make_move_iterator(items->rend()));
    } else {
      std::vector<Entry> entries;
      entries.reserve(items->size());
      for (const auto& item : *items) entries.push_back(Entry::from(*item));
      show(context, entries);
    }
    return true;
  }

  /// What cannot be listed may be a file, which stands for itself.
  static bool isFile(const std::shared_ptr<NSDictionary>& attributes, const std::string& path) {
    return attributes && !Entry::from(path, *attributes).isDirectory;
  }
  bool showFile(VerbContext& context, FSPlugin& volume, const std::string& path, NSErrorRef error) {
    const auto attributes = error ? nullptr : volume.attributesAtPath(path, &error);
    if (isFile(attributes, path)) {
      show(context, {Entry::from(path, *attributes)});
    } else {
      context.fail(path, error);
    }
    return false;
  }

  void show(VerbContext& context, const std::vector<Entry>& entries) const {
    std::size_t sizeWidth = isRecursive_ ? recursiveSizeWidth : 1;
    if (isLong_) {
      for (const Entry& entry : entries) sizeWidth = std::max(sizeWidth, sizeText(entry).size());
    }
    for (const Entry& entry : entries) {
      if (context.console.isClosed() || StopSignal::isRequested()) return;
      context.console.line(context.options.json ? entry.json() : plain(entry, sizeWidth));
    }
  }

  std::string plain(const Entry& entry, std::size_t sizeWidth) const {
    std::string name = isRecursive_ ? entry.shownPath() : entry.shownName();
    if (!isLong_) return name;
    const std::string date = entry.modified ? localTime(*entry.modified) : "-";
    return fmt::format("{:>{}}  {:<16}  {}", sizeText(entry), sizeWidth, date, name);
  }

  static std::string sizeText(const Entry& entry) {
    return entry.isDirectory ? "-" : fmt::format("{}", entry.sizeBytes);
  }

  static constexpr std::size_t recursiveSizeWidth = 12;  // lines go out before the largest size is known
  bool isLong_ = false;
  bool isRecursive_ = false;
  std::vector<std::string> typed_;
  std::vector<std::shared_ptr<FSItem>> pending_;  // still to be shown, the next one last
};

}  // namespace

std::unique_ptr<Verb> makeLsVerb() { return std::make_unique<LsVerb>(); }

}  // namespace kzv::cli
