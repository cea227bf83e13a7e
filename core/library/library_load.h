// The library read from the store into memory: the rows, and the sets the
// categories and scopes need (damaged, ISRC, artwork, and the duplicates
// when asked for, which cost a pass over every fingerprint).
//
// Thread contract: the store's; the index it returns is read-only.
#pragma once

#include <memory>

#include "core/library/library_index.h"
#include "core/store/orvel_db.h"

namespace orvel::library {

struct LoadOptions {
  bool duplicates = false;
};

LibrarySets loadSets(const OrvelDB& db, const LoadOptions& options = {});
std::shared_ptr<const LibraryIndex> loadIndex(OrvelDB& db, const LoadOptions& options = {});

// The live tracks a search finds, by the same rule as the library view,
// read straight from the store without loading whole rows: a quick answer
// for one question.
std::vector<int64_t> idsFound(const OrvelDB& db, std::string_view typed);

}  // namespace orvel::library
