#include "support/KZVDropboxFSSupport.h"

void KZVDropboxFSSupport::performBlockInBackground(Block block, NSThread& thread) {
  thread.perform([block = std::move(block)] { _runBlock(block); }, false);
}

void KZVDropboxFSSupport::performBlockInBackgroundAndWait(Block block, NSThread& thread) {
  thread.perform([block = std::move(block)] { _runBlock(block); }, true);
}

void KZVDropboxFSSupport::_runBlock(const Block& block) noexcept { runGuarded(block); }
