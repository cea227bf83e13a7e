// Per-track data kept beside the `tracks` row: plays, fingerprints, options,
// release fields and tags.
#include <fmt/format.h>

#include "core/store/orvel_db.h"

namespace orvel {

void OrvelDB::recordPlay(int64_t trackId, int64_t at, int64_t keep) {
  Transaction tx(conn_);
  Statement ins = conn_.prepare("INSERT INTO play_history(track_id, at) VALUES(?, ?)");
  ins.bind(1, trackId).bind(2, at).stepCode();
  conn_.execIgnoring(fmt::format(
      "UPDATE tracks SET play_count = COALESCE(play_count, 0) + 1 WHERE id = {}", trackId));
  conn_.execIgnoring(fmt::format(
      "DELETE FROM play_history WHERE id NOT IN (SELECT id FROM play_history ORDER BY at DESC, id "
      "DESC LIMIT {})",
      keep));
  tx.commit();
}

std::vector<std::pair<int64_t, int64_t>> OrvelDB::recentPlays(int64_t limit) const {
  std::vector<std::pair<int64_t, int64_t>> out;
  Statement st =
      conn_.prepare("SELECT track_id, at FROM play_history ORDER BY at DESC, id DESC LIMIT ?");
  st.bind(1, limit);
  while (st.step()) out.emplace_back(st.int64(0), st.int64(1));
  return out;
}

void OrvelDB::clearPlayHistory() {
  conn_.execIgnoring("DELETE FROM play_history");
}

std::vector<std::pair<int64_t, std::string>> OrvelDB::tracksNeedingFingerprint(
    int64_t limit) const {
  std::vector<std::pair<int64_t, std::string>> out;
  Statement st = conn_.prepare(
      "SELECT t.id, t.path FROM tracks t LEFT JOIN track_fingerprints f ON f.track_id = t.id "
      "WHERE f.fp_raw IS NULL AND t.merged_into IS NULL AND t.file_missing=0 LIMIT ?");
  st.bind(1, limit);
  while (st.step()) out.emplace_back(st.int64(0), st.text(1));
  return out;
}

void OrvelDB::setRawFingerprint(int64_t trackId, const std::vector<uint8_t>& bytes) {
  Statement st =
      conn_.prepare("INSERT OR REPLACE INTO track_fingerprints(track_id, fp_raw) VALUES(?2, ?1)");
  st.bindBlob(1, bytes).bind(2, trackId).stepCode();
}

std::optional<std::vector<uint8_t>> OrvelDB::waveform(int64_t trackId) const {
  Statement st = conn_.prepare("SELECT peaks FROM waveforms WHERE track_id=?");
  st.bind(1, trackId);
  if (!st.step()) return std::nullopt;
  return st.blob(0);
}

void OrvelDB::setWaveform(int64_t trackId, const std::vector<uint8_t>& peaks) {
  Statement st = conn_.prepare("INSERT OR REPLACE INTO waveforms(track_id, peaks) VALUES(?,?)");
  st.bind(1, trackId).bindBlob(2, peaks).stepCode();
}

std::optional<std::string> OrvelDB::trackOptions(int64_t trackId) const {
  Statement st = conn_.prepare("SELECT json FROM track_options WHERE track_id=?");
  st.bind(1, trackId);
  if (!st.step()) return std::nullopt;
  return st.text(0);
}

std::optional<std::string> OrvelDB::setTrackOptions(int64_t trackId, const std::string& json) {
  Transaction tx(conn_);
  const std::string opName = "Track Options";
  const std::string opId = journal_.begin(opName);
  journal_.snapshotRow(opId, opName, "track_options", trackId);
  Statement st = conn_.prepare(
      "INSERT INTO track_options(track_id, json) VALUES(?, ?) ON CONFLICT(track_id) DO UPDATE SET "
      "json=excluded.json");
  st.bind(1, trackId).bind(2, json);
  if (st.stepCode() != SQLITE_DONE) return std::nullopt;
  journal_.seal(opId);
  if (!tx.commit()) return std::nullopt;
  return opId;
}

std::vector<int64_t> OrvelDB::shuffleExcludedIds() const {
  return conn_.ids(
      "SELECT track_id FROM track_options\n"
      "WHERE REPLACE(json, ' ', '') LIKE '%\"skipShuffle\":true%'");
}

std::vector<int64_t> OrvelDB::idsWithISRC() const {
  return conn_.ids("SELECT track_id FROM release_fields WHERE COALESCE(isrc,'') <> ''");
}

std::map<int64_t, std::string> OrvelDB::isrcMap() const {
  std::map<int64_t, std::string> out;
  Statement st =
      conn_.prepare("SELECT track_id, isrc FROM release_fields WHERE COALESCE(isrc,'') <> ''");
  while (st.step()) out.emplace(st.int64(0), st.text(1));
  return out;
}

void OrvelDB::setISRC(int64_t trackId, const std::string& isrc) {
  Statement st = conn_.prepare(
      "INSERT INTO release_fields(track_id, isrc) VALUES(?,?)\n"
      "ON CONFLICT(track_id) DO UPDATE SET isrc = excluded.isrc");
  st.bind(1, trackId).bind(2, isrc).stepCode();
}

void OrvelDB::addTag(std::span<const int64_t> ids, const std::string& tag) {
  Transaction tx(conn_);
  Statement st = conn_.prepare("INSERT OR IGNORE INTO track_tags(track_id, tag, at) VALUES(?,?,?)");
  const int64_t now = unixNow();
  for (int64_t id : ids) {
    st.reset();
    st.bind(1, id).bind(2, tag).bind(3, now).stepCode();
  }
  tx.commit();
}

void OrvelDB::removeTag(std::span<const int64_t> ids, const std::string& tag) {
  if (ids.empty()) return;
  Statement st =
      conn_.prepare("DELETE FROM track_tags WHERE tag = ? AND track_id IN (" + joinIds(ids) + ")");
  st.bind(1, tag).stepCode();
}

std::vector<int64_t> OrvelDB::taggedIds(const std::string& tag) const {
  Statement st =
      conn_.prepare("SELECT track_id FROM track_tags WHERE tag = ? ORDER BY at, track_id");
  st.bind(1, tag);
  std::vector<int64_t> out;
  while (st.step()) out.push_back(st.int64(0));
  return out;
}

std::vector<std::string> OrvelDB::tagsOf(int64_t trackId) const {
  Statement st = conn_.prepare("SELECT tag FROM track_tags WHERE track_id = ? ORDER BY tag");
  st.bind(1, trackId);
  std::vector<std::string> out;
  while (st.step()) out.push_back(st.text(0));
  return out;
}

std::vector<std::pair<std::string, int64_t>> OrvelDB::allTagCounts() const {
  std::vector<std::pair<std::string, int64_t>> out;
  Statement st = conn_.prepare("SELECT tag, COUNT(*) FROM track_tags GROUP BY tag");
  while (st.step()) out.emplace_back(st.text(0), st.int64(1));
  return out;
}

std::vector<int64_t> OrvelDB::idsWithArtwork() const {
  return conn_.ids(
      "SELECT id FROM tracks WHERE has_artwork = 1 AND merged_into IS NULL AND (removed IS NULL OR "
      "removed = 0)");
}

}  // namespace orvel
