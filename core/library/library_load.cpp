#include "core/library/library_load.h"

#include <set>

#include "core/library/filter.h"

#include "core/store/defect_row.h"

namespace orvel::library {

LibrarySets loadSets(const OrvelDB& db, const LoadOptions& options) {
  LibrarySets sets;
  // Damage the user has dismissed (fixed, or kept as it is) is not damage.
  const auto verdicts = db.analysis().defectStatuses();
  for (int64_t id : db.analysis().tracksWithDefects())
    if (!verdicts.count(id)) sets.damaged.insert(id);
  for (int64_t id : db.trackData().idsWithISRC()) sets.withIsrc.insert(id);
  for (int64_t id : db.trackData().idsWithArtwork()) sets.withArtwork.insert(id);
  (void)options;
  return sets;
}

std::vector<int64_t> idsFound(const OrvelDB& db, std::string_view typed) {
  const std::string needle = searchNeedle(typed);
  std::vector<int64_t> ids;
  std::string text;
  db.tracks().forEachSearchable([&](int64_t id, std::string_view title, std::string_view artist,
                                    std::string_view album, std::string_view genre) {
    text.clear();
    appendSearchText(text, title, artist, album, genre);
    if (searchFinds(text, needle)) ids.push_back(id);
  });
  return ids;
}

std::shared_ptr<const LibraryIndex> loadIndex(OrvelDB& db, const LoadOptions& options) {
  return LibraryIndex::build(db.tracks().loadSnapshot(), loadSets(db, options));
}

}  // namespace orvel::library
