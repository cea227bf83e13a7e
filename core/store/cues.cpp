// Cue points, loops, the analyser's automatic in/out pair, and the cues and
// beat grids that other programs keep for a track.
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <set>

#include "core/store/orvel_db.h"

namespace orvel {
namespace {

constexpr const char* kAutoInColor = "#3FB950";
constexpr const char* kAutoOutColor = "#E5534B";

constexpr const char* kCueColumns =
    "SELECT id, track_id, source_id, bank, idx, position_ms, length_ms, COALESCE(color, ''), "
    "COALESCE(name, ''), kind FROM cues ";

CueRow readCue(const Statement& st) {
  CueRow c;
  c.id = st.int64(0);
  c.trackId = st.int64(1);
  c.sourceId = st.optInt64(2);
  c.bank = st.text(3);
  c.index = st.int64(4);
  c.positionMs = st.real(5);
  c.lengthMs = st.optReal(6);
  c.color = st.text(7);
  c.name = st.text(8);
  c.kind = st.text(9);
  return c;
}

// The anchors of a stored grid; entries that are not {pos_ms, bpm} numbers
// are passed over, and text that is not a JSON array gives none.
std::vector<BeatAnchor> parseAnchors(const std::string& json) {
  std::vector<BeatAnchor> out;
  const auto anchors = nlohmann::json::parse(json, nullptr, false);
  if (!anchors.is_array()) return out;
  for (const auto& a : anchors) {
    if (!a.is_object() || !a.contains("pos_ms") || !a.contains("bpm") || !a["pos_ms"].is_number() ||
        !a["bpm"].is_number())
      continue;
    out.push_back({a["pos_ms"].get<double>(), a["bpm"].get<double>()});
  }
  return out;
}

// The shortest text that reads back as the same double, for the journal.
std::string realText(double v) {
  return fmt::format("{}", v);
}

}  // namespace

std::vector<CueRow> OrvelDB::cues(int64_t trackId) const {
  Statement st = conn_.prepare(std::string(kCueColumns) +
                               "WHERE track_id = ? ORDER BY kind, idx, position_ms, id");
  st.bind(1, trackId);
  std::vector<CueRow> out;
  while (st.step()) out.push_back(readCue(st));
  return out;
}

std::optional<CueRow> OrvelDB::cue(int64_t cueId) const {
  Statement st = conn_.prepare(std::string(kCueColumns) + "WHERE id = ?");
  st.bind(1, cueId);
  if (!st.step()) return std::nullopt;
  return readCue(st);
}

std::optional<int64_t> OrvelDB::insertManual(int64_t trackId, std::string_view kind, int slot,
                                             double positionMs, std::optional<double> lengthMs) {
  const bool loop = kind == "loop";
  Statement ins =
      loop ? conn_.prepare(
                 "INSERT INTO cues(track_id, source_id, bank, idx, position_ms, length_ms, color, "
                 "name, kind) VALUES(?, NULL, 'hot', ?, ?, ?, '#2FB8A6', ?, 'loop')")
           : conn_.prepare(
                 "INSERT INTO cues(track_id, source_id, bank, idx, position_ms, color, name, kind) "
                 "VALUES(?, NULL, 'hot', ?, ?, '#D9A441', ?, 'cue')");
  const std::string name = fmt::format("ORVEL {} {}", loop ? "LOOP" : "CUE", slot + 1);
  ins.bind(1, trackId).bind(2, slot).bind(3, positionMs);
  if (loop)
    ins.bind(4, lengthMs).bind(5, name);
  else
    ins.bind(4, name);
  if (ins.stepCode() != SQLITE_DONE) {
    lastError_ = conn_.errorMessage();
    return std::nullopt;
  }
  return freshRowId("cues", conn_.lastInsertId());
}

std::optional<CueEdit> OrvelDB::addInFreeSlot(int64_t trackId, std::string_view kind,
                                              double positionMs, std::optional<double> lengthMs) {
  const bool loop = kind == "loop";
  if (!conn_.scalarInt("SELECT 1 FROM tracks WHERE id = " + std::to_string(trackId))) {
    lastError_ = "no track with id " + std::to_string(trackId);
    return std::nullopt;
  }
  Transaction tx(conn_);
  std::set<int64_t> used;
  {
    Statement st =
        conn_.prepare(loop ? "SELECT idx FROM cues WHERE track_id=? AND kind='loop' AND idx < 8"
                           : "SELECT idx FROM cues WHERE track_id=? AND kind='cue' AND idx < 8");
    st.bind(1, trackId);
    while (st.step()) used.insert(st.int64(0));
  }
  int slot = 0;
  while (slot < kCueSlots && used.contains(slot)) ++slot;
  if (slot == kCueSlots) {
    lastError_ = fmt::format("all {} {} slots of the track are taken", kCueSlots, kind);
    return std::nullopt;
  }
  const auto cueId = insertManual(trackId, kind, slot, positionMs, lengthMs);
  if (!cueId) return std::nullopt;
  const std::string opName = loop ? "Set Loop" : "Set Cue";
  const std::string opId = journal_.begin(opName);
  journal_.recordCreated(opId, opName, "cues", *cueId);
  if (!tx.commit()) return std::nullopt;
  return CueEdit{slot, *cueId, opId};
}

std::optional<CueEdit> OrvelDB::addManualCue(int64_t trackId, double positionMs) {
  return addInFreeSlot(trackId, "cue", positionMs, std::nullopt);
}

std::optional<CueEdit> OrvelDB::addManualLoop(int64_t trackId, double startMs, double lengthMs) {
  return addInFreeSlot(trackId, "loop", startMs, lengthMs);
}

std::optional<std::string> OrvelDB::setCue(int64_t trackId, int slot, double positionMs) {
  if (slot < 0 || slot >= kCueSlots) {
    lastError_ = fmt::format("cue slots are 0 to {}", kCueSlots - 1);
    return std::nullopt;
  }
  if (!conn_.scalarInt("SELECT 1 FROM tracks WHERE id = " + std::to_string(trackId))) {
    lastError_ = "no track with id " + std::to_string(trackId);
    return std::nullopt;
  }
  const std::string opName = "Set Cue";
  Transaction tx(conn_);
  const std::string opId = journal_.begin(opName);
  {
    Statement st = conn_.prepare("SELECT id FROM cues WHERE track_id=? AND idx=? AND kind='cue'");
    st.bind(1, trackId).bind(2, slot);
    while (st.step()) journal_.snapshotRow(opId, opName, "cues", st.int64(0));
  }
  conn_.execIgnoring(
      fmt::format("DELETE FROM cues WHERE track_id={} AND idx={} AND kind='cue'", trackId, slot));
  const auto cueId = insertManual(trackId, "cue", slot, positionMs, std::nullopt);
  if (!cueId) return std::nullopt;
  journal_.recordCreated(opId, opName, "cues", *cueId);
  journal_.seal(opId);
  if (!tx.commit()) return std::nullopt;
  return opId;
}

std::optional<std::string> OrvelDB::moveCue(int64_t cueId, double positionMs) {
  if (!cue(cueId)) {
    lastError_ = "no cue with id " + std::to_string(cueId);
    return std::nullopt;
  }
  const std::string opName = "Move Cue";
  Transaction tx(conn_);
  const std::string opId = journal_.begin(opName);
  journal_.recordCurrent(opId, opName, "cues", std::vector<int64_t>{cueId}, "position_ms",
                         realText(positionMs));
  Statement up = conn_.prepare("UPDATE cues SET position_ms=? WHERE id=?");
  if (up.bind(1, positionMs).bind(2, cueId).stepCode() != SQLITE_DONE || !tx.commit()) {
    lastError_ = conn_.errorMessage();
    return std::nullopt;
  }
  return opId;
}

std::optional<std::string> OrvelDB::setLoopBounds(int64_t cueId, double startMs, double lengthMs) {
  if (!cue(cueId)) {
    lastError_ = "no cue with id " + std::to_string(cueId);
    return std::nullopt;
  }
  const std::string opName = "Move Loop";
  const std::vector<int64_t> ids{cueId};
  Transaction tx(conn_);
  const std::string opId = journal_.begin(opName);
  journal_.recordCurrent(opId, opName, "cues", ids, "position_ms", realText(startMs));
  journal_.recordCurrent(opId, opName, "cues", ids, "length_ms", realText(lengthMs));
  Statement up = conn_.prepare("UPDATE cues SET position_ms=?, length_ms=? WHERE id=?");
  if (up.bind(1, startMs).bind(2, lengthMs).bind(3, cueId).stepCode() != SQLITE_DONE ||
      !tx.commit()) {
    lastError_ = conn_.errorMessage();
    return std::nullopt;
  }
  return opId;
}

std::optional<std::string> OrvelDB::deleteCue(int64_t cueId) {
  if (!cue(cueId)) {
    lastError_ = "no cue with id " + std::to_string(cueId);
    return std::nullopt;
  }
  const std::string opName = "Delete Cue";
  Transaction tx(conn_);
  const std::string opId = journal_.begin(opName);
  journal_.snapshotRow(opId, opName, "cues", cueId);
  Statement del = conn_.prepare("DELETE FROM cues WHERE id=?");
  if (del.bind(1, cueId).stepCode() != SQLITE_DONE) {
    lastError_ = conn_.errorMessage();
    return std::nullopt;
  }
  journal_.seal(opId);
  if (!tx.commit()) return std::nullopt;
  return opId;
}

std::vector<int64_t> OrvelDB::autoCueIds(int64_t trackId) const {
  Statement st = conn_.prepare(
      "SELECT id FROM cues WHERE track_id=? AND source_id IS NULL AND (name IN ('AUTO IN','AUTO "
      "OUT') OR idx IN (90, 91))");
  st.bind(1, trackId);
  std::vector<int64_t> out;
  while (st.step()) out.push_back(st.int64(0));
  return out;
}

std::optional<std::string> OrvelDB::replaceAutoCues(int64_t trackId, double inMs, double outMs) {
  if (!conn_.scalarInt("SELECT 1 FROM tracks WHERE id = " + std::to_string(trackId))) {
    lastError_ = "no track with id " + std::to_string(trackId);
    return std::nullopt;
  }
  const std::string opName = "Analyze Cues";
  Transaction tx(conn_);
  const std::string opId = journal_.begin(opName);
  for (int64_t id : autoCueIds(trackId)) journal_.snapshotRow(opId, opName, "cues", id);
  conn_.execIgnoring(fmt::format(
      "DELETE FROM cues WHERE track_id={} AND source_id IS NULL AND (name IN ('AUTO IN','AUTO "
      "OUT') OR idx IN (90, 91))",
      trackId));
  Statement ins = conn_.prepare(
      "INSERT INTO cues(track_id, source_id, bank, idx, position_ms, color, name, kind) VALUES(?, "
      "NULL, 'hot', ?, ?, ?, ?, 'cue')");
  const struct {
    int index;
    double ms;
    const char* color;
    const char* name;
  } pair[] = {{kAutoInIndex, inMs, kAutoInColor, "AUTO IN"},
              {kAutoOutIndex, outMs, kAutoOutColor, "AUTO OUT"}};
  for (const auto& c : pair) {
    ins.reset();
    ins.bind(1, trackId).bind(2, c.index).bind(3, c.ms).bind(4, c.color).bind(5, c.name);
    if (ins.stepCode() != SQLITE_DONE) {
      lastError_ = conn_.errorMessage();
      return std::nullopt;
    }
    journal_.recordCreated(opId, opName, "cues", freshRowId("cues", conn_.lastInsertId()));
  }
  journal_.seal(opId);
  if (!tx.commit()) return std::nullopt;
  return opId;
}

bool OrvelDB::replaceSourceCues(int64_t trackId, int64_t sourceId, std::span<const CueRow> cues,
                                std::span<const BeatAnchor> grid) {
  Transaction tx(conn_);
  for (const char* table : {"cues", "beatgrids"}) {
    if (auto error = conn_.execChecked(fmt::format(
            "DELETE FROM {} WHERE track_id={} AND source_id={}", table, trackId, sourceId))) {
      lastError_ = *error;
      return false;
    }
  }
  Statement ins = conn_.prepare(
      "INSERT INTO cues(track_id, source_id, bank, idx, position_ms, length_ms, color, name, kind) "
      "VALUES(?,?,'hot',?,?,?,?,?,?)");
  for (const CueRow& c : cues) {
    ins.reset();
    ins.bind(1, trackId).bind(2, sourceId).bind(3, c.index).bind(4, c.positionMs);
    ins.bind(5, c.lengthMs).bind(6, c.color).bind(7, c.name).bind(8, c.kind);
    if (ins.stepCode() != SQLITE_DONE) {
      lastError_ = conn_.errorMessage();
      return false;
    }
    freshRowId("cues", conn_.lastInsertId());
  }
  if (!grid.empty()) {
    nlohmann::json anchors = nlohmann::json::array();
    for (const BeatAnchor& a : grid) anchors.push_back({{"pos_ms", a.posMs}, {"bpm", a.bpm}});
    Statement st = conn_.prepare(
        "INSERT OR REPLACE INTO beatgrids(track_id, source_id, anchors_json) VALUES(?,?,?)");
    if (st.bind(1, trackId).bind(2, sourceId).bind(3, anchors.dump()).stepCode() != SQLITE_DONE) {
      lastError_ = conn_.errorMessage();
      return false;
    }
  }
  return tx.commit();
}

std::vector<BeatAnchor> OrvelDB::beatGrid(int64_t trackId, std::optional<int64_t> sourceId) const {
  Statement st =
      conn_.prepare("SELECT anchors_json FROM beatgrids WHERE track_id = ? AND source_id IS ?");
  st.bind(1, trackId).bind(2, sourceId);
  if (!st.step()) return {};
  return parseAnchors(st.text(0));
}

std::vector<SourceGrid> OrvelDB::beatGrids(int64_t trackId) const {
  Statement st = conn_.prepare(
      "SELECT g.source_id, COALESCE(s.name, ''), g.anchors_json FROM beatgrids g\n"
      "LEFT JOIN sources s ON s.id = g.source_id WHERE g.track_id = ? ORDER BY g.rowid");
  st.bind(1, trackId);
  std::vector<SourceGrid> out;
  while (st.step()) out.push_back({st.optInt64(0), st.text(1), parseAnchors(st.text(2))});
  return out;
}

}  // namespace orvel
