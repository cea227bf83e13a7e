// Per-track data kept beside the `tracks` row: plays, options and tags.
#include <fmt/format.h>

#include "core/store/orvel_db.h"

namespace orvel {

Status TrackDataStore::recordPlay(int64_t trackId, int64_t at, int64_t keep) {
  Transaction tx(conn_);
  if (!tx) return tx.status();
  Statement ins = conn_.prepare("INSERT INTO play_history(track_id, at) VALUES(?, ?)");
  if (ins.bind(1, trackId).bind(2, at).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  if (Status s = conn_.exec(fmt::format(
          "UPDATE tracks SET play_count = COALESCE(play_count, 0) + 1 WHERE id = {}", trackId));
      !s)
    return s;
  if (Status s =
          conn_.exec(fmt::format("DELETE FROM play_history WHERE id NOT IN\n"
                                 "(SELECT id FROM play_history ORDER BY at DESC, id DESC LIMIT {})",
                                 keep));
      !s)
    return s;
  return tx.commit();
}

std::vector<std::pair<int64_t, int64_t>> TrackDataStore::recentPlays(int64_t limit) const {
  std::vector<std::pair<int64_t, int64_t>> out;
  Statement st =
      conn_.prepare("SELECT track_id, at FROM play_history ORDER BY at DESC, id DESC LIMIT ?");
  st.bind(1, limit);
  while (st.step()) out.emplace_back(st.int64(0), st.int64(1));
  return out;
}

Status TrackDataStore::clearPlayHistory() {
  // A write outside a transaction is published as it finishes, before the
  // mark below could join it; inside one, the commit publishes both.
  Transaction tx(conn_);
  if (!tx) return tx.status();
  if (Status s = conn_.exec("DELETE FROM play_history"); !s) return s;
  // Emptied in one go, which SQLite's update hook does not report row by row.
  conn_.markAllRows("play_history");
  return tx.commit();
}

std::optional<std::string> TrackDataStore::trackOptions(int64_t trackId) const {
  Statement st = conn_.prepare("SELECT json FROM track_options WHERE track_id=?");
  st.bind(1, trackId);
  if (!st.step()) return std::nullopt;
  return st.text(0);
}

Result<std::string> TrackDataStore::setTrackOptions(int64_t trackId, const std::string& json) {
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opName = "Track Options";
  const std::string opId = journal_.begin(opName);
  if (Status j = journal_.snapshotRow(opId, opName, "track_options", trackId); !j) return j;
  Statement st = conn_.prepare(
      "INSERT INTO track_options(track_id, json) VALUES(?, ?) ON CONFLICT(track_id) DO UPDATE SET "
      "json=excluded.json");
  st.bind(1, trackId).bind(2, json);
  if (st.stepCode() != SQLITE_DONE) return conn_.lastStatus();
  if (Status j = journal_.seal(opId); !j) return j;
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

std::vector<int64_t> TrackDataStore::shuffleExcludedIds() const {
  return conn_.ids(
      "SELECT track_id FROM track_options\n"
      "WHERE REPLACE(json, ' ', '') LIKE '%\"skipShuffle\":true%'");
}

Status TrackDataStore::addTag(std::span<const int64_t> ids, const std::string& tag) {
  Transaction tx(conn_);
  if (!tx) return tx.status();
  Statement st = conn_.prepare("INSERT OR IGNORE INTO track_tags(track_id, tag, at) VALUES(?,?,?)");
  const int64_t now = unixNow();
  for (int64_t id : ids) {
    st.reset();
    if (st.bind(1, id).bind(2, tag).bind(3, now).stepCode() != SQLITE_DONE)
      return conn_.lastStatus();
  }
  return tx.commit();
}

Status TrackDataStore::removeTag(std::span<const int64_t> ids, const std::string& tag) {
  if (ids.empty()) return Status::ok();
  Statement st =
      conn_.prepare("DELETE FROM track_tags WHERE tag = ? AND track_id IN (" + joinIds(ids) + ")");
  if (st.bind(1, tag).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return Status::ok();
}

std::vector<int64_t> TrackDataStore::taggedIds(const std::string& tag) const {
  Statement st =
      conn_.prepare("SELECT track_id FROM track_tags WHERE tag = ? ORDER BY at, track_id");
  st.bind(1, tag);
  std::vector<int64_t> out;
  while (st.step()) out.push_back(st.int64(0));
  return out;
}

std::vector<std::string> TrackDataStore::tagsOf(int64_t trackId) const {
  Statement st = conn_.prepare("SELECT tag FROM track_tags WHERE track_id = ? ORDER BY tag");
  st.bind(1, trackId);
  std::vector<std::string> out;
  while (st.step()) out.push_back(st.text(0));
  return out;
}

std::vector<std::pair<std::string, int64_t>> TrackDataStore::allTagCounts() const {
  std::vector<std::pair<std::string, int64_t>> out;
  Statement st = conn_.prepare("SELECT tag, COUNT(*) FROM track_tags GROUP BY tag");
  while (st.step()) out.emplace_back(st.text(0), st.int64(1));
  return out;
}

std::vector<int64_t> TrackDataStore::idsWithISRC() const {
  return conn_.ids("SELECT id FROM tracks t WHERE " + std::string(kLiveTrackT) +
                   " AND (COALESCE(t.isrc,'') <> '' OR EXISTS(SELECT 1 FROM release_fields r "
                   "WHERE r.track_id = t.id AND COALESCE(r.isrc,'') <> ''))");
}

std::vector<int64_t> TrackDataStore::idsWithArtwork() const {
  return conn_.ids("SELECT id FROM tracks t WHERE " + std::string(kLiveTrackT) +
                   " AND COALESCE(t.has_artwork,0) = 1");
}

}  // namespace orvel
