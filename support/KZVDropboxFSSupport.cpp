#include "support/KZVDropboxFSSupport.h"

#include <exception>

#include "foundation/NSLog.h"

void KZVDropboxFSSupport::performBlockInBackground(Block block, NSThread& thread) {
  thread.perform([block = std::move(block)] { _runBlock(block); }, false);
}

void KZVDropboxFSSupport::performBlockInBackgroundAndWait(Block block, NSThread& thread) {
  thread.perform([block = std::move(block)] { _runBlock(block); }, true);
}

void KZVDropboxFSSupport::_runBlock(const Block& block) noexcept {
  try {
    block();
  } catch (const std::exception& exception) {
    NSLog(NSLogLevel::error, "_runBlock", exception.what());
  } catch (...) {
    NSLog(NSLogLevel::error, "_runBlock", "exception of unknown type");
  }
}
