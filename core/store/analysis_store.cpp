// What analysis found. A scan's rows are written in one transaction so a
// track never shows half of one scan and half of the previous; tempo and key
// never overwrite a value the user already has.
#include <fmt/format.h>

#include "core/store/orvel_db.h"
#include "core/store/track_values.h"

namespace orvel {

Status AnalysisStore::setAnalysis(int64_t id, const std::optional<std::string>& key,
                                  std::optional<double> bpm) {
  if (key && !key->empty()) {
    Statement st = conn_.prepare("UPDATE tracks SET key=? WHERE id=? AND (key IS NULL OR key='')");
    if (st.bind(1, *key).bind(2, id).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  }
  if (bpm && isTempo(*bpm)) {
    // fmt writes the shortest text that reads back as the same double.
    return conn_.exec(
        fmt::format("UPDATE tracks SET bpm={} WHERE id={} AND bpm IS NULL", *bpm, id));
  }
  return Status::ok();
}

Status AnalysisStore::setRawFingerprint(int64_t trackId, const std::vector<uint8_t>& bytes) {
  Statement st =
      conn_.prepare("INSERT OR REPLACE INTO track_fingerprints(track_id, fp_raw) VALUES(?2, ?1)");
  if (st.bindBlob(1, bytes).bind(2, trackId).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return Status::ok();
}

std::vector<std::pair<int64_t, std::vector<uint8_t>>> AnalysisStore::rawFingerprints() const {
  std::vector<std::pair<int64_t, std::vector<uint8_t>>> out;
  Statement st = conn_.prepare(
      "SELECT f.track_id, f.fp_raw FROM track_fingerprints f JOIN tracks t ON t.id = f.track_id "
      "WHERE " +
      std::string(kLiveTrackT) + " AND length(f.fp_raw) > 0 ORDER BY f.track_id");
  while (st.step()) out.emplace_back(st.int64(0), st.blob(1));
  return out;
}

std::optional<std::vector<uint8_t>> AnalysisStore::waveform(int64_t trackId) const {
  Statement st = conn_.prepare("SELECT peaks FROM waveforms WHERE track_id=?");
  st.bind(1, trackId);
  if (!st.step()) return std::nullopt;
  return st.blob(0);
}

Status AnalysisStore::setWaveform(int64_t trackId, const std::vector<uint8_t>& peaks) {
  Statement st = conn_.prepare("INSERT OR REPLACE INTO waveforms(track_id, peaks) VALUES(?,?)");
  if (st.bind(1, trackId).bindBlob(2, peaks).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return Status::ok();
}

Status AnalysisStore::recordDefectScan(int64_t trackId, std::span<const DefectRow> findings,
                                       int64_t scannedAt) {
  Transaction tx(conn_);
  if (!tx) return tx.status();
  if (Status s = conn_.exec(fmt::format("DELETE FROM defects WHERE track_id = {}", trackId)); !s)
    return s;
  Statement ins =
      conn_.prepare("INSERT INTO defects(track_id, kind, position_ms, severity) VALUES(?,?,?,?)");
  for (const DefectRow& d : findings) {
    ins.reset();
    ins.bind(1, trackId).bind(2, d.kind).bind(3, d.positionMs).bind(4, d.severity);
    if (ins.stepCode() != SQLITE_DONE) return conn_.lastStatus();
  }
  Statement scan = conn_.prepare(
      "INSERT OR REPLACE INTO defect_scans(track_id, scanned_at, found) VALUES(?,?,?)");
  scan.bind(1, trackId).bind(2, scannedAt).bind(3, static_cast<int64_t>(findings.size()));
  if (scan.stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return tx.commit();
}

std::vector<DefectRow> AnalysisStore::defects(int64_t trackId) const {
  std::vector<DefectRow> out;
  Statement st = conn_.prepare(
      "SELECT kind, position_ms, severity FROM defects WHERE track_id=? ORDER BY position_ms");
  st.bind(1, trackId);
  while (st.step()) out.push_back({st.text(0), st.real(1), st.real(2)});
  return out;
}

std::vector<int64_t> AnalysisStore::tracksWithDefects() const {
  return conn_.ids("SELECT DISTINCT track_id FROM defects");
}

std::vector<int64_t> AnalysisStore::scannedTracks() const {
  return conn_.ids("SELECT track_id FROM defect_scans");
}

Status AnalysisStore::setDefectStatus(int64_t trackId, std::string_view status, int64_t at) {
  Statement st =
      conn_.prepare("INSERT OR REPLACE INTO defect_status(track_id, status, at) VALUES(?,?,?)");
  st.bind(1, trackId).bind(2, status).bind(3, at);
  if (st.stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return Status::ok();
}

std::map<int64_t, std::string> AnalysisStore::defectStatuses() const {
  std::map<int64_t, std::string> out;
  Statement st = conn_.prepare("SELECT track_id, status FROM defect_status");
  while (st.step()) out.emplace(st.int64(0), st.text(1));
  return out;
}

std::vector<AnalysisStore::TrackPath> AnalysisStore::presentTracks(Need need) const {
  std::string sql = "SELECT t.id, t.path FROM tracks t WHERE " + std::string(kLiveTrackT) +
                    " AND COALESCE(t.file_missing, 0) = 0";
  if (need == Need::analysis)
    sql +=
        " AND (NOT EXISTS (SELECT 1 FROM waveforms w WHERE w.track_id = t.id) OR NOT EXISTS "
        "(SELECT 1 FROM defect_scans d WHERE d.track_id = t.id))";
  else if (need == Need::defectScan)
    sql += " AND NOT EXISTS (SELECT 1 FROM defect_scans d WHERE d.track_id = t.id)";
  std::vector<TrackPath> out;
  Statement st = conn_.prepare(sql + " ORDER BY t.id");
  while (st.step()) out.push_back({st.int64(0), st.text(1)});
  return out;
}

}  // namespace orvel
