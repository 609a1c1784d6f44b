#include "foundation/ContainerTeardown.h"

#include <utility>

namespace {
// Set while this thread is releasing: containers that go meanwhile hand their members over instead of
// recursing.
thread_local std::vector<id>* waiting = nullptr;

bool isContainer(const id& object) {
  return object && (object->kind() == NSKind::array || object->kind() == NSKind::dictionary);
}
}  // namespace

void releaseInTurn(std::vector<id>&& members) noexcept {
  if (waiting) {
    for (id& member : members) {
      if (isContainer(member)) waiting->push_back(std::move(member));
    }
    members.clear();
    return;
  }
  std::vector<id> queue;
  waiting = &queue;
  members.clear();
  while (!queue.empty()) {
    const id next = std::move(queue.back());
    queue.pop_back();
  }
  waiting = nullptr;
}
