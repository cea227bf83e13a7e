// The collection XML that DJ software imports (rekordbox's DJ_PLAYLISTS
// layout): every track of the exported crates with its beat grid and cues,
// then the crates themselves as a tree of folders and playlists.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

namespace orvel {
class OrvelDB;
}

namespace orvel::app {

struct XmlExportResult {
  int64_t tracks = 0;                // TRACK entries of the collection
  int64_t playlists = 0;             // playlist nodes (folders not counted)
  std::optional<std::string> error;  // set: nothing was written
};

// Writes the crates `crateIds` with everything below them (none given: the
// whole tree) to `file`, which must end in ".xml". The file is replaced
// whole or left as it was. Tracks without a path, and removed ones, are left
// out of the collection and of every playlist.
XmlExportResult exportXML(const OrvelDB& db, std::span<const int64_t> crateIds,
                          const std::filesystem::path& file);

}  // namespace orvel::app
