// Cues, loops and beat grids: the user's eight slots of each, the analyser's
// automatic pair, and what other programs (Serato) keep per track. Part of
// OrvelDB (cues()); same thread contract.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/store/cue_row.h"
#include "core/store/store_area.h"

namespace orvel {

class CueStore : public StoreArea {
 public:
  explicit CueStore(OrvelDB& db) : StoreArea(db) {}

  // The track's cues and loops: user slots, automatic pair, imported ones.
  std::vector<CueRow> cues(int64_t trackId) const;
  std::optional<CueRow> cue(int64_t cueId) const;
  // The lowest free slot of eight; refused when all are taken.
  Result<CueEdit> addManualCue(int64_t trackId, double positionMs);
  Result<CueEdit> addManualLoop(int64_t trackId, double startMs, double lengthMs);
  // Replaces the cue in `slot` (0–7); a higher slot is refused.
  Result<std::string> setCue(int64_t trackId, int slot, double positionMs);
  Result<std::string> moveCue(int64_t cueId, double positionMs);
  Result<std::string> setLoopBounds(int64_t cueId, double startMs, double lengthMs);
  Result<std::string> deleteCue(int64_t cueId);
  // The analyser's in and out cues, replacing its earlier pair only. They
  // join the history operation `opId` when one is given (an analysis run
  // records all its tracks under one), else an operation of their own;
  // returns the operation's id.
  Result<std::string> replaceAutoCues(int64_t trackId, double inMs, double outMs,
                                      const std::string& opId = {});
  // Cues and the beat grid one source (Serato) keeps for a track, replaced
  // whole; the user's own cues and other sources' are left alone.
  Status replaceSourceCues(int64_t trackId, int64_t sourceId, std::span<const CueRow> cues,
                           std::span<const BeatAnchor> grid);
  std::vector<BeatAnchor> beatGrid(int64_t trackId, std::optional<int64_t> sourceId) const;
  // Every grid the track has, one per source, in the order they were stored.
  std::vector<SourceGrid> beatGrids(int64_t trackId) const;

 private:
  // Ok for a cue at `startMs` (and a loop `lengthMs` long) inside the track:
  // finite, from 0, and before its end when its length is known.
  Status checkPlacement(int64_t trackId, double startMs, std::optional<double> lengthMs) const;
  std::vector<int64_t> autoCueIds(int64_t trackId) const;
  // A cue or loop of this program in `slot`; returns its id.
  Result<int64_t> insertManual(int64_t trackId, std::string_view kind, int slot, double positionMs,
                               std::optional<double> lengthMs);
  Result<CueEdit> addInFreeSlot(int64_t trackId, std::string_view kind, double positionMs,
                                std::optional<double> lengthMs);
};

}  // namespace orvel
