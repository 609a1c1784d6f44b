// Entries of the upload journal as a killed process or a person may have left them: each is read whole or
// left alone, and never names a file outside of the journal.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

#include "foundation/NSLog.h"
#include "mount/journal/UploadJournal.h"
#include "testing/FuzzInvariant.h"

namespace {

namespace fs = std::filesystem;
using kzv::mount::UploadJournal;

/// The journal in a folder of its own that goes with the process.
struct Fixture {
  Fixture() {
    std::string name = (fs::temp_directory_path() / "kzv-fuzz-XXXXXX").string();
    requireThat(::mkdtemp(name.data()) != nullptr, "there is a temporary folder");
    home = name;
    ::setenv("KZV_HOME", name.c_str(), 1);
    setLogLevel(NSLogLevel::off);
    journal = UploadJournal::open("u1", "/mnt", nullptr);
    requireThat(journal != nullptr, "a journal can be made");
    pending = fs::path(journal->dataPath("x")).parent_path();
    renames = pending.parent_path() / "renames";
  }
  ~Fixture() {
    journal.reset();
    fs::remove_all(home);
  }
  fs::path home, pending, renames;
  std::unique_ptr<UploadJournal> journal;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture fixture;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  std::ofstream(fixture.pending / "1.json", std::ios::binary) << bytes;
  std::ofstream(fixture.pending / "1.data", std::ios::binary) << "content";
  std::ofstream(fixture.renames / "2.json", std::ios::binary) << bytes;
  for (const auto& upload : fixture.journal->uploads()) {
    requireThat(upload.id == "1", "an entry has its file's name");
    requireThat(fs::exists(fixture.journal->dataPath(upload.id)), "an entry has its bytes");
  }
  for (const auto& rename : fixture.journal->renames())
    requireThat(rename.id == "2", "an entry has its file's name");
  return 0;
}
