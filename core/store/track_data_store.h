// What the library keeps beside a track's own row: plays, per-track options
// and tags. Part of OrvelDB (trackData()); same thread contract.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/store/store_area.h"

namespace orvel {

class TrackDataStore : public StoreArea {
 public:
  explicit TrackDataStore(OrvelDB& db) : StoreArea(db) {}

  // A play: appended to the history, counted on the track, and the history
  // trimmed to its newest `keep` entries, in one transaction.
  Status recordPlay(int64_t trackId, int64_t at, int64_t keep);
  std::vector<std::pair<int64_t, int64_t>> recentPlays(int64_t limit) const;  // (track, at)
  // Play counts stay.
  Status clearPlayHistory();

  // The track's options as a JSON object text; none when it has none.
  std::optional<std::string> trackOptions(int64_t trackId) const;
  // Journaled ("Track Options"); returns the op id.
  Result<std::string> setTrackOptions(int64_t trackId, const std::string& json);
  std::vector<int64_t> shuffleExcludedIds() const;

  Status addTag(std::span<const int64_t> ids, const std::string& tag);
  Status removeTag(std::span<const int64_t> ids, const std::string& tag);
  std::vector<int64_t> taggedIds(const std::string& tag) const;
  std::vector<std::string> tagsOf(int64_t trackId) const;
  std::vector<std::pair<std::string, int64_t>> allTagCounts() const;

  // Live tracks with an ISRC (kept in release_fields or on the track), and
  // with artwork.
  std::vector<int64_t> idsWithISRC() const;
  std::vector<int64_t> idsWithArtwork() const;
};

}  // namespace orvel
