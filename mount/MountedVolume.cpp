#include "mount/MountedVolume.h"

#include <utility>

#include "foundation/DispatchQueue.h"

namespace kzv::mount {

MountedVolume::MountedVolume(std::shared_ptr<FSPlugin> volume, std::shared_ptr<UploadJournal> journal,
                             KernelCache& kernel, LinkSource links, IsLinked isLinked,
                             const MountDelays& delays)
    : parts_(std::move(volume), std::move(journal), kernel, std::move(isLinked), delays),
      lookups_(parts_, std::move(links)),
      space_(parts_.volume, parts_.delays.spaceAge),
      refresher_(
          parts_.tree, parts_.changed, kernel,
          [this](const MountNodeRef& folder) {
            return parts_.listings.ensureListed(folder, [this] { return parts_.calls.isStopping(); });
          },
          parts_.delays) {}

MountedVolume::~MountedVolume() {
  stop();
  parts_.queue.join();  // its thread uses members that are destroyed before it
}

void MountedVolume::start() {
  // Before the first folder is listed, so that its listing can be cached; nothing waits for it.
  DispatchQueue::global().async([volume = parts_.volume] { volume->pollForChanges(); });
  Rename::recover(parts_.calls, *parts_.journal);
  parts_.leftovers.load();
  refresher_.start();
  parts_.queue.start(parts_.uploader);
}

void MountedVolume::stop() {
  parts_.calls.stop();
  parts_.changed->close();
  parts_.queue.stop();
}

}  // namespace kzv::mount
