#pragma once
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/NSError.h"
#include "foundation/NSObject.h"

/// A folder "NAME.bundle" with loadable code (NAME.so) and resources (Resources/). Any thread.
class NSBundle final : public NSObject {
 public:
  /// A relative `path` is resolved against the current folder.
  explicit NSBundle(const std::string& path);

  /// Absolute.
  const std::string& bundlePath() const noexcept { return path_; }
  /// Loads the code (once, even when called concurrently) and adds the bundle to loadedBundles(). The code is
  /// never unloaded: its threads may run until the process ends. Blocks for the disk and the code's
  /// initialisers. The error is in NSPOSIXErrorDomain when the file cannot be read, else in domain "NSBundle"
  /// with the dynamic loader's message.
  bool load(NSErrorRef* error = nullptr);
  /// The address of a function or object that the loaded code exports, or null; also null before load().
  void* symbol(const std::string& name) const;
  /// The absolute path of a resource file, or empty when there is none.
  std::string pathForResource(const std::string& fileName) const;

  /// The bundles whose resources imageNamed and L search, in order of loading.
  static std::vector<std::shared_ptr<NSBundle>> loadedBundles();
  /// Adds a bundle's resources without loading code, for programs that link the code. A folder is added only
  /// once.
  static void addResources(std::shared_ptr<NSBundle> bundle);

 private:
  const std::string path_;
  std::mutex loading_;                   // held while the code is being loaded
  std::atomic<void*> handle_ = nullptr;  // set once by load()
};
