// Cue points, loops, the analyser's automatic in/out pair, and the cues and
// beat grids that other programs keep for a track.
#include <fmt/format.h>

#include <cmath>
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

// "1:04.250", for the few messages that name a time.
std::string clock(double ms) {
  const auto whole = static_cast<int64_t>(ms);
  return fmt::format("{}:{:02}.{:03}", whole / 60000, whole / 1000 % 60, whole % 1000);
}

// The shortest text that reads back as the same double, for the journal.
std::string realText(double v) {
  return fmt::format("{}", v);
}

}  // namespace

std::vector<CueRow> CueStore::cues(int64_t trackId) const {
  Statement st = conn_.prepare(std::string(kCueColumns) +
                               "WHERE track_id = ? ORDER BY kind, idx, position_ms, id");
  st.bind(1, trackId);
  std::vector<CueRow> out;
  while (st.step()) out.push_back(readCue(st));
  return out;
}

std::optional<CueRow> CueStore::cue(int64_t cueId) const {
  Statement st = conn_.prepare(std::string(kCueColumns) + "WHERE id = ?");
  st.bind(1, cueId);
  if (!st.step()) return std::nullopt;
  return readCue(st);
}

Status CueStore::checkPlacement(int64_t trackId, double startMs,
                                std::optional<double> lengthMs) const {
  if (!std::isfinite(startMs) || startMs < 0)
    return Status::invalid("a cue's time is 0 or later in the track");
  if (lengthMs && (!std::isfinite(*lengthMs) || *lengthMs <= 0))
    return Status::invalid("a loop is longer than nothing");
  // Only a known length can be checked against; a track not yet read has none.
  const auto duration =
      conn_.scalarInt("SELECT duration_ms FROM tracks WHERE id = " + std::to_string(trackId) +
                      " AND duration_ms > 0");
  if (!duration) return Status::ok();
  const auto length = static_cast<double>(*duration);
  if (startMs >= length)
    return Status::invalid(
        fmt::format("{} lies past the end of the track ({} long)", clock(startMs), clock(length)));
  if (lengthMs && startMs + *lengthMs > length)
    return Status::invalid(
        fmt::format("a loop from {} of {} runs past the end of the track ({} "
                    "long)",
                    clock(startMs), clock(*lengthMs), clock(length)));
  return Status::ok();
}

Result<int64_t> CueStore::insertManual(int64_t trackId, std::string_view kind, int slot,
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
    return conn_.lastStatus();
  }
  return freshRowId("cues", conn_.lastInsertId());
}

Result<CueEdit> CueStore::addInFreeSlot(int64_t trackId, std::string_view kind, double positionMs,
                                        std::optional<double> lengthMs) {
  const bool loop = kind == "loop";
  if (!conn_.scalarInt("SELECT 1 FROM tracks WHERE id = " + std::to_string(trackId))) {
    return Status::notFound("no track with id " + std::to_string(trackId));
  }
  if (Status ok = checkPlacement(trackId, positionMs, lengthMs); !ok) return ok;
  Transaction tx(conn_);
  if (!tx) return tx.status();
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
    return Status::failed(fmt::format("all {} {} slots of the track are taken", kCueSlots, kind));
  }
  const auto cueId = insertManual(trackId, kind, slot, positionMs, lengthMs);
  if (!cueId) return conn_.lastStatus();
  const std::string opName = loop ? "Set Loop" : "Set Cue";
  const std::string opId = journal_.begin(opName);
  if (Status j = journal_.recordCreated(opId, opName, "cues", *cueId); !j) return j;
  if (Status kept = tx.commit(); !kept) return kept;
  return CueEdit{slot, *cueId, opId};
}

Result<CueEdit> CueStore::addManualCue(int64_t trackId, double positionMs) {
  return addInFreeSlot(trackId, "cue", positionMs, std::nullopt);
}

Result<CueEdit> CueStore::addManualLoop(int64_t trackId, double startMs, double lengthMs) {
  return addInFreeSlot(trackId, "loop", startMs, lengthMs);
}

Result<std::string> CueStore::setCue(int64_t trackId, int slot, double positionMs) {
  if (slot < 0 || slot >= kCueSlots) {
    return Status::failed(fmt::format("cue slots are 0 to {}", kCueSlots - 1));
  }
  if (!conn_.scalarInt("SELECT 1 FROM tracks WHERE id = " + std::to_string(trackId))) {
    return Status::notFound("no track with id " + std::to_string(trackId));
  }
  if (Status ok = checkPlacement(trackId, positionMs, std::nullopt); !ok) return ok;
  const std::string opName = "Set Cue";
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = journal_.begin(opName);
  {
    Statement st = conn_.prepare("SELECT id FROM cues WHERE track_id=? AND idx=? AND kind='cue'");
    st.bind(1, trackId).bind(2, slot);
    while (st.step())
      if (Status j = journal_.snapshotRow(opId, opName, "cues", st.int64(0)); !j) return j;
  }
  if (Status s = conn_.exec(fmt::format(
          "DELETE FROM cues WHERE track_id={} AND idx={} AND kind='cue'", trackId, slot));
      !s)
    return s;
  const auto cueId = insertManual(trackId, "cue", slot, positionMs, std::nullopt);
  if (!cueId) return cueId.status();
  if (Status j = journal_.recordCreated(opId, opName, "cues", *cueId); !j) return j;
  if (Status j = journal_.seal(opId); !j) return j;
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

Result<std::string> CueStore::moveCue(int64_t cueId, double positionMs) {
  const auto moving = cue(cueId);
  if (!moving) {
    return Status::notFound("no cue with id " + std::to_string(cueId));
  }
  if (Status ok = checkPlacement(moving->trackId, positionMs, moving->lengthMs); !ok) return ok;
  const std::string opName = "Move Cue";
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = journal_.begin(opName);
  if (Status j = journal_.recordCurrent(opId, opName, "cues", std::vector<int64_t>{cueId},
                                        "position_ms", realText(positionMs));
      !j)
    return j;
  Statement up = conn_.prepare("UPDATE cues SET position_ms=? WHERE id=?");
  if (up.bind(1, positionMs).bind(2, cueId).stepCode() != SQLITE_DONE || !tx.commit()) {
    return conn_.lastStatus();
  }
  return opId;
}

Result<std::string> CueStore::setLoopBounds(int64_t cueId, double startMs, double lengthMs) {
  const auto loop = cue(cueId);
  if (!loop) {
    return Status::notFound("no cue with id " + std::to_string(cueId));
  }
  if (Status ok = checkPlacement(loop->trackId, startMs, lengthMs); !ok) return ok;
  const std::string opName = "Move Loop";
  const std::vector<int64_t> ids{cueId};
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = journal_.begin(opName);
  if (Status j =
          journal_.recordCurrent(opId, opName, "cues", ids, "position_ms", realText(startMs));
      !j)
    return j;
  if (Status j = journal_.recordCurrent(opId, opName, "cues", ids, "length_ms", realText(lengthMs));
      !j)
    return j;
  Statement up = conn_.prepare("UPDATE cues SET position_ms=?, length_ms=? WHERE id=?");
  if (up.bind(1, startMs).bind(2, lengthMs).bind(3, cueId).stepCode() != SQLITE_DONE ||
      !tx.commit()) {
    return conn_.lastStatus();
  }
  return opId;
}

Result<std::string> CueStore::deleteCue(int64_t cueId) {
  if (!cue(cueId)) {
    return Status::notFound("no cue with id " + std::to_string(cueId));
  }
  const std::string opName = "Delete Cue";
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = journal_.begin(opName);
  if (Status j = journal_.snapshotRow(opId, opName, "cues", cueId); !j) return j;
  Statement del = conn_.prepare("DELETE FROM cues WHERE id=?");
  if (del.bind(1, cueId).stepCode() != SQLITE_DONE) {
    return conn_.lastStatus();
  }
  if (Status j = journal_.seal(opId); !j) return j;
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

std::vector<int64_t> CueStore::autoCueIds(int64_t trackId) const {
  Statement st = conn_.prepare(
      "SELECT id FROM cues WHERE track_id=? AND source_id IS NULL AND (name IN ('AUTO IN','AUTO "
      "OUT') OR idx IN (90, 91))");
  st.bind(1, trackId);
  std::vector<int64_t> out;
  while (st.step()) out.push_back(st.int64(0));
  return out;
}

Result<std::string> CueStore::replaceAutoCues(int64_t trackId, double inMs, double outMs,
                                              const std::string& runOpId) {
  if (!conn_.scalarInt("SELECT 1 FROM tracks WHERE id = " + std::to_string(trackId))) {
    return Status::notFound("no track with id " + std::to_string(trackId));
  }
  const std::string opName = "Analyze Cues";
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = runOpId.empty() ? journal_.begin(opName) : runOpId;
  // Only this track's entries need sealing, not the run's thousands before.
  const int64_t sealFrom = conn_.scalarInt("SELECT COALESCE(MAX(id), 0) FROM history").value_or(0);
  for (int64_t id : autoCueIds(trackId))
    if (Status j = journal_.snapshotRow(opId, opName, "cues", id); !j) return j;
  if (Status s = conn_.exec(fmt::format(
          "DELETE FROM cues WHERE track_id={} AND source_id IS NULL AND (name IN ('AUTO IN','AUTO "
          "OUT') OR idx IN (90, 91))",
          trackId));
      !s)
    return s;
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
      return conn_.lastStatus();
    }
    if (Status j =
            journal_.recordCreated(opId, opName, "cues", freshRowId("cues", conn_.lastInsertId()));
        !j)
      return j;
  }
  if (Status j = journal_.seal(opId, sealFrom); !j) return j;
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

Status CueStore::replaceSourceCues(int64_t trackId, int64_t sourceId, std::span<const CueRow> cues,
                                   std::span<const BeatAnchor> grid) {
  Transaction tx(conn_);
  if (!tx) return tx.status();
  for (const char* table : {"cues", "beatgrids"}) {
    if (auto error = conn_.execChecked(fmt::format(
            "DELETE FROM {} WHERE track_id={} AND source_id={}", table, trackId, sourceId))) {
      return Status::failed(*error);
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
      return conn_.lastStatus();
    }
    freshRowId("cues", conn_.lastInsertId());
  }
  if (!grid.empty()) {
    nlohmann::json anchors = nlohmann::json::array();
    for (const BeatAnchor& a : grid) anchors.push_back({{"pos_ms", a.posMs}, {"bpm", a.bpm}});
    Statement st = conn_.prepare(
        "INSERT OR REPLACE INTO beatgrids(track_id, source_id, anchors_json) VALUES(?,?,?)");
    if (st.bind(1, trackId).bind(2, sourceId).bind(3, anchors.dump()).stepCode() != SQLITE_DONE) {
      return conn_.lastStatus();
    }
  }
  return tx.commit();
}

std::vector<BeatAnchor> CueStore::beatGrid(int64_t trackId, std::optional<int64_t> sourceId) const {
  Statement st =
      conn_.prepare("SELECT anchors_json FROM beatgrids WHERE track_id = ? AND source_id IS ?");
  st.bind(1, trackId).bind(2, sourceId);
  if (!st.step()) return {};
  return parseAnchors(st.text(0));
}

std::vector<SourceGrid> CueStore::beatGrids(int64_t trackId) const {
  Statement st = conn_.prepare(
      "SELECT g.source_id, COALESCE(s.name, ''), g.anchors_json FROM beatgrids g\n"
      "LEFT JOIN sources s ON s.id = g.source_id WHERE g.track_id = ? ORDER BY g.rowid");
  st.bind(1, trackId);
  std::vector<SourceGrid> out;
  while (st.step()) out.push_back({st.optInt64(0), st.text(1), parseAnchors(st.text(2))});
  return out;
}

}  // namespace orvel
