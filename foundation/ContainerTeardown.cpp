#include "foundation/ContainerTeardown.h"

namespace {

constexpr int deepest = 64;

/// Members of containers nested deeper than `deepest`; released iteratively.
struct Deferred {
  std::vector<ContainerTeardown::Items> items;
  std::vector<ContainerTeardown::Entries> entries;
};

thread_local int depth = 0;
thread_local Deferred* deferred = nullptr;

template <class Members>
void releaseLast(std::vector<Members>& rows) noexcept {
  const Members next = std::move(rows.back());
  rows.pop_back();
}

/// Called by the outermost container that this thread is destroying.
void releaseDeferred() noexcept {
  while (deferred && (!deferred->items.empty() || !deferred->entries.empty())) {
    if (!deferred->items.empty()) releaseLast(deferred->items);
    if (!deferred->entries.empty()) releaseLast(deferred->entries);
  }
  delete std::exchange(deferred, nullptr);
}

template <class Members>
void releaseMembers(Members& members, std::vector<Members> Deferred::*rows) noexcept {
  if (members.empty()) return;
  if (depth == deepest) {
    if (!deferred) deferred = std::make_unique<Deferred>().release();
    (deferred->*rows).push_back(std::move(members));
    return;
  }
  ++depth;
  members.clear();
  if (depth == 1 && deferred) releaseDeferred();
  --depth;
}

}  // namespace

void ContainerTeardown::release(Items& items) noexcept { releaseMembers(items, &Deferred::items); }

void ContainerTeardown::release(Entries& entries) noexcept { releaseMembers(entries, &Deferred::entries); }
