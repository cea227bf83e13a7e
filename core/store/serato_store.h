// Serato's library and file tags folded into the catalogue: tracks matched
// by path key (only empty fields filled), crates and smart crates under the
// Serato source, and each file's cues, loops and beat grid. Nothing is ever
// removed. Part of OrvelDB (serato()); same thread contract.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/store/cue_row.h"
#include "core/store/store_area.h"
#include "core/store/track_store.h"

namespace orvel {

struct SeratoLibrary;
struct SeratoCrate;
struct SeratoFileTags;
struct SeratoGridAnchor;
struct SmartPlaylist;

// What reading Serato's library added to the catalogue. Nothing is ever
// removed, so all zero means the catalogue was already up to date.
struct SeratoRefreshCounts {
  int64_t tracksAdded = 0;   // rows made from "database V2"
  int64_t tracksFilled = 0;  // existing rows whose empty fields were filled in
  int64_t cratesAdded = 0;
  int64_t addedLinks = 0;    // crate memberships
  int64_t ghosts = 0;        // placeholders for crate members not in the catalogue
  int64_t smartUpdated = 0;  // smart crates whose rule summary changed
  int64_t tagsStored = 0;    // files whose cues or beat grid changed
  int64_t skippedTrackChunks = 0;

  bool anythingAdded() const {
    return tracksAdded + tracksFilled + cratesAdded + addedLinks + ghosts + smartUpdated +
               tagsStored >
           0;
  }
};

enum class TagsStored { changed, unchanged, failed };

class SeratoStore : public StoreArea {
 public:
  explicit SeratoStore(OrvelDB& db) : StoreArea(db) {}

  // The source row named "serato", made on first use.
  Result<int64_t> seratoSourceId(const std::string& detail = {});
  // A file's Serato cues, loops and beat grid replace the ones stored for it
  // under the Serato source; unchanged tags write nothing.
  TagsStored storeFileTags(int64_t trackId, const SeratoFileTags& tags);
  // Serato's grid markers as anchors in milliseconds, each with its tempo:
  // the marker's own, else the beats to the next marker over the time to it.
  static std::vector<BeatAnchor> gridFromSerato(std::span<const SeratoGridAnchor> anchors);
  // In one transaction: the tracks of "database V2" (matched by path key; a
  // new row gets Serato's fields and is marked missing when its file is not
  // there; an existing row only has empty fields filled), the files only
  // crates name as the importer read them (`crateOnly`), then the crates.
  // Nothing is written when it fails.
  Result<SeratoRefreshCounts> foldSeratoTracks(const SeratoLibrary& library,
                                               std::span<const NewTrack> crateOnly = {});

 private:
  // Serato's crates as 'crate' nodes under the Serato source, nested by their
  // name chains; members only ever added, unknown paths as placeholders;
  // smart crates keep their rule summaries.
  Status refreshSeratoCrates(const SeratoLibrary& library, SeratoRefreshCounts& counts);
  // A smart crate's rule summary, and with `rules` (its rules in Orvel's
  // terms) the rules stored and the members they give now. True when
  // anything about it changed.
  Result<bool> refreshSmartCrate(int64_t crateId, const SeratoCrate& crate,
                                 const std::optional<SmartPlaylist>& rules,
                                 SeratoRefreshCounts& counts);
};

}  // namespace orvel
