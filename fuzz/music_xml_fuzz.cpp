// The reader of the library XML that Music exports: a file the user picks
// (or any file at the usual place), read whole on every call.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>

#include "app/music_library_reader.h"
#include "fuzz/fuzz_checks.h"

namespace {

std::string folder;

bool isPid(const std::string& id) {
  if (id.size() != 16) return false;
  for (char c : id)
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return false;
  return true;
}

}  // namespace

// The reader logs what it cannot read; the log goes to a scratch home, not
// the real one.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char pattern[] = "/tmp/orvel-fuzz-XXXXXX";
  folder = mkdtemp(pattern);
  setenv("HOME", folder.c_str(), 1);
  setenv("XDG_STATE_HOME", (folder + "/state").c_str(), 1);
  setenv("XDG_DATA_HOME", (folder + "/share").c_str(), 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using orvel::fuzz::require;
  const std::string file = folder + "/Library.xml";
  std::ofstream(file, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), std::streamsize(size));
  const orvel::app::MusicLibraryReader reader(file);
  const auto lists = reader.playlists();
  for (const auto& p : lists) {
    require(isPid(p.id));
    require(p.kind == "folder" || p.kind == "playlist");
    require(p.parentId.empty() || isPid(p.parentId));
    for (const auto& item : p.itemIds) require(isPid(item));
    reader.fullPath(p.id);  // must end even when parents form a loop
  }
  for (const auto& [pid, path] : reader.locationsIfReadable()) require(isPid(pid));
  for (const auto& e : reader.extraEntries()) require(isPid(e.pid));
  for (const auto& [pid, video] : reader.videoFlags()) require(isPid(pid));
  require(reader.playlists().size() == lists.size());
  return 0;
}
