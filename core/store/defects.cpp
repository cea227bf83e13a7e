// Defect scan findings. A scan's rows are written in one transaction so a
// track never shows half of one scan and half of the previous.
#include <fmt/format.h>

#include "core/store/orvel_db.h"

namespace orvel {

void OrvelDB::ensureDefectSchema() const {
  // On existing tables these are schema lookups, cheap enough to run before
  // every operation; a cached flag would go stale when a restored snapshot
  // brings back a catalogue from before the first scan.
  conn_.execIgnoring(
      "CREATE TABLE IF NOT EXISTS defects(id INTEGER PRIMARY KEY, track_id INTEGER NOT NULL, "
      "kind TEXT NOT NULL, position_ms REAL NOT NULL, severity REAL NOT NULL)");
  conn_.execIgnoring("CREATE INDEX IF NOT EXISTS ix_defects_track ON defects(track_id)");
  conn_.execIgnoring(
      "CREATE TABLE IF NOT EXISTS defect_status(track_id INTEGER PRIMARY KEY, status TEXT NOT "
      "NULL, at INTEGER NOT NULL)");
  conn_.execIgnoring(
      "CREATE TABLE IF NOT EXISTS defect_scans(track_id INTEGER PRIMARY KEY, scanned_at INTEGER "
      "NOT NULL, found INTEGER NOT NULL)");
}

bool OrvelDB::recordDefectScan(int64_t trackId, std::span<const DefectRow> findings,
                               int64_t scannedAt) {
  ensureDefectSchema();
  Transaction tx(conn_);
  if (conn_.execChecked(fmt::format("DELETE FROM defects WHERE track_id = {}", trackId)))
    return false;
  Statement ins =
      conn_.prepare("INSERT INTO defects(track_id, kind, position_ms, severity) VALUES(?,?,?,?)");
  for (const DefectRow& d : findings) {
    ins.reset();
    ins.bind(1, trackId).bind(2, d.kind).bind(3, d.positionMs).bind(4, d.severity);
    if (ins.stepCode() != SQLITE_DONE) return false;
  }
  Statement scan = conn_.prepare(
      "INSERT OR REPLACE INTO defect_scans(track_id, scanned_at, found) VALUES(?,?,?)");
  scan.bind(1, trackId).bind(2, scannedAt).bind(3, static_cast<int64_t>(findings.size()));
  if (scan.stepCode() != SQLITE_DONE) return false;
  return tx.commit();
}

std::vector<DefectRow> OrvelDB::defects(int64_t trackId) const {
  ensureDefectSchema();
  std::vector<DefectRow> out;
  Statement st = conn_.prepare(
      "SELECT kind, position_ms, severity FROM defects WHERE track_id=? ORDER BY position_ms");
  st.bind(1, trackId);
  while (st.step()) out.push_back({st.text(0), st.real(1), st.real(2)});
  return out;
}

std::vector<int64_t> OrvelDB::tracksWithDefects() const {
  ensureDefectSchema();
  return conn_.ids("SELECT DISTINCT track_id FROM defects");
}

std::vector<int64_t> OrvelDB::scannedTracks() const {
  ensureDefectSchema();
  return conn_.ids("SELECT track_id FROM defect_scans");
}

bool OrvelDB::setDefectStatus(int64_t trackId, std::string_view status, int64_t at) {
  ensureDefectSchema();
  Statement st =
      conn_.prepare("INSERT OR REPLACE INTO defect_status(track_id, status, at) VALUES(?,?,?)");
  st.bind(1, trackId).bind(2, status).bind(3, at);
  return st.stepCode() == SQLITE_DONE;
}

std::map<int64_t, std::string> OrvelDB::defectStatuses() const {
  ensureDefectSchema();
  std::map<int64_t, std::string> out;
  Statement st = conn_.prepare("SELECT track_id, status FROM defect_status");
  while (st.step()) out.emplace(st.int64(0), st.text(1));
  return out;
}

}  // namespace orvel
