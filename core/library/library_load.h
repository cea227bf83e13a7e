// The library read from the store into memory: the rows, and the sets the
// categories and scopes need (damaged, ISRC, artwork, and the duplicates
// when asked for, which cost a pass over every fingerprint).
//
// Thread contract: the store's; the index it returns is read-only.
#pragma once

#include <memory>
#include <unordered_set>
#include <vector>

#include "core/library/library_index.h"
#include "core/store/orvel_db.h"

namespace orvel::library {

struct LoadOptions {
  bool duplicates = false;
};

// The sets beside the rows, but the duplicates (which need the rows).
LibrarySets loadSets(const OrvelDB& db);
std::shared_ptr<const LibraryIndex> loadIndex(OrvelDB& db, const LoadOptions& options = {});

// The groups of tracks that hold the same recording (see duplicates.h),
// over the rows given and the fingerprints the store keeps.
std::vector<std::vector<int64_t>> duplicateGroups(const OrvelDB& db, const TrackSnapshot& rows);
std::unordered_set<int64_t> duplicateIds(const OrvelDB& db, const TrackSnapshot& rows);

// The live tracks a search finds, by the same rule as the library view,
// read straight from the store without loading whole rows: a quick answer
// for one question. `looked` counts the live tracks looked at.
struct Found {
  std::vector<int64_t> ids;
  int64_t looked = 0;
};
Found idsFound(const OrvelDB& db, std::string_view typed);

}  // namespace orvel::library
