// The base of the store's areas (tracks, playlists, cues…): each area is a
// view onto one OrvelDB and shares its connection, journal and snapshots.
// An area belongs to the thread that owns its OrvelDB, like the rest of it.
#pragma once

#include <cstdint>
#include <string_view>

#include "core/store/connection.h"
#include "core/store/journal.h"
#include "core/store/snapshots.h"
#include "core/store/status.h"

namespace orvel {

class OrvelDB;

class StoreArea {
 public:
  StoreArea(const StoreArea&) = delete;
  StoreArea& operator=(const StoreArea&) = delete;

 protected:
  explicit StoreArea(OrvelDB& db);
  ~StoreArea() = default;

  // A row just inserted into `table` (cues, playlists) whose id the history
  // already knows (a deleted row's id, reused by SQLite) gets a new id, so
  // undoing that deletion can never overwrite it. Returns the row's id.
  int64_t freshRowId(std::string_view table, int64_t id) const;

  OrvelDB& db_;
  const Connection& conn_;
  Journal& journal_;
  Snapshots& snapshots_;
};

// The one spelling of "a track the library lists": not merged into another
// and not removed. `t.` is the alias the listing queries give `tracks`.
inline constexpr std::string_view kLiveTrack = "merged_into IS NULL AND COALESCE(removed, 0) = 0";
inline constexpr std::string_view kLiveTrackT =
    "t.merged_into IS NULL AND COALESCE(t.removed, 0) = 0";

}  // namespace orvel
