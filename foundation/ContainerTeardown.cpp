#include "foundation/ContainerTeardown.h"

namespace {

constexpr int deepest = 64;

/// Members of containers that went too deep inside others to be released there.
struct Waiting {
  std::vector<ContainerTeardown::Items> items;
  std::vector<ContainerTeardown::Entries> entries;
};

thread_local int depth = 0;
thread_local Waiting* waiting = nullptr;

template <class Members>
void takeLast(std::vector<Members>& rows) noexcept {
  const Members next = std::move(rows.back());
  rows.pop_back();
}

/// Runs on the outermost container of this thread that is being destroyed.
void releaseWaiting() noexcept {
  while (waiting && (!waiting->items.empty() || !waiting->entries.empty())) {
    if (!waiting->items.empty()) takeLast(waiting->items);
    if (!waiting->entries.empty()) takeLast(waiting->entries);
  }
  delete std::exchange(waiting, nullptr);
}

template <class Members>
void releaseMembers(Members& members, std::vector<Members> Waiting::*rows) noexcept {
  if (members.empty()) return;
  if (depth == deepest) {
    if (!waiting) waiting = std::make_unique<Waiting>().release();
    (waiting->*rows).push_back(std::move(members));
    return;
  }
  ++depth;
  members.clear();
  if (depth == 1 && waiting) releaseWaiting();
  --depth;
}

}  // namespace

void ContainerTeardown::release(Items& items) noexcept { releaseMembers(items, &Waiting::items); }

void ContainerTeardown::release(Entries& entries) noexcept { releaseMembers(entries, &Waiting::entries); }
