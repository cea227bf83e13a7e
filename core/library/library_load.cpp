#include "core/library/library_load.h"

#include <set>
#include <unordered_map>

#include "core/library/duplicates.h"
#include "core/library/filter.h"
#include "core/store/defect_row.h"

namespace orvel::library {

std::vector<std::vector<int64_t>> duplicateGroups(const OrvelDB& db, const TrackSnapshot& rows) {
  std::unordered_map<int64_t, std::vector<uint32_t>> prints;
  for (auto& [id, blob] : db.analysis().rawFingerprints())
    prints.emplace(id, fingerprintWords(blob));
  std::vector<DuplicateCandidate> candidates;
  candidates.reserve(rows.rows.size());
  for (const TrackRow& r : rows.rows) {
    DuplicateCandidate c;
    c.id = r.id;
    c.durationMs = r.durationMs;
    c.artist = r.artist();
    c.title = r.title();
    if (const auto it = prints.find(r.id); it != prints.end()) c.fingerprint = it->second;
    candidates.push_back(c);
  }
  return findDuplicateGroups(candidates);
}

std::unordered_set<int64_t> duplicateIds(const OrvelDB& db, const TrackSnapshot& rows) {
  std::unordered_set<int64_t> ids;
  for (const auto& group : duplicateGroups(db, rows)) ids.insert(group.begin(), group.end());
  return ids;
}

LibrarySets loadSets(const OrvelDB& db) {
  LibrarySets sets;
  // Damage the user has dismissed (fixed, or kept as it is) is not damage.
  const auto verdicts = db.analysis().defectStatuses();
  for (int64_t id : db.analysis().tracksWithDefects())
    if (!verdicts.count(id)) sets.damaged.insert(id);
  for (int64_t id : db.trackData().idsWithISRC()) sets.withIsrc.insert(id);
  for (int64_t id : db.trackData().idsWithArtwork()) sets.withArtwork.insert(id);
  return sets;
}

Found idsFound(const OrvelDB& db, std::string_view typed) {
  const std::string needle = searchNeedle(typed);
  Found found;
  std::string text;
  db.tracks().forEachSearchable([&](int64_t id, std::string_view title, std::string_view artist,
                                    std::string_view album, std::string_view genre) {
    ++found.looked;
    text.clear();
    appendSearchText(text, title, artist, album, genre);
    if (searchFinds(text, needle)) found.ids.push_back(id);
  });
  return found;
}

std::shared_ptr<const LibraryIndex> loadIndex(OrvelDB& db, const LoadOptions& options) {
  auto snapshot = db.tracks().loadSnapshot();
  LibrarySets sets = loadSets(db);
  if (options.duplicates) sets.duplicates = duplicateIds(db, *snapshot);
  return LibraryIndex::build(std::move(snapshot), std::move(sets));
}

}  // namespace orvel::library
