// What analysis found: tempo and key (never over the user's), overview
// waveforms, raw fingerprints, defect scans and the user's verdicts on them,
// and which tracks still need a pass. Part of OrvelDB (analysis()); same
// thread contract.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/store/defect_row.h"
#include "core/store/store_area.h"

namespace orvel {

class AnalysisStore : public StoreArea {
 public:
  explicit AnalysisStore(OrvelDB& db) : StoreArea(db) {}

  // Analysis results never overwrite a value the user already has.
  Status setAnalysis(int64_t id, const std::optional<std::string>& key, std::optional<double> bpm);

  Status setRawFingerprint(int64_t trackId, const std::vector<uint8_t>& bytes);
  // Every live track's raw fingerprint (as analysis stored it), by ascending
  // track id; tracks without one are left out, missing files are not.
  std::vector<std::pair<int64_t, std::vector<uint8_t>>> rawFingerprints() const;

  // The stored overview waveform (3,200 bytes), none when never computed.
  std::optional<std::vector<uint8_t>> waveform(int64_t trackId) const;
  Status setWaveform(int64_t trackId, const std::vector<uint8_t>& peaks);

  // A track's new findings replace its old ones whole, and the scan is
  // remembered (when, how many found) even when it found nothing.
  Status recordDefectScan(int64_t trackId, std::span<const DefectRow> findings, int64_t scannedAt);
  // The track's findings in time order.
  std::vector<DefectRow> defects(int64_t trackId) const;
  std::vector<int64_t> tracksWithDefects() const;
  // Every track scanned at least once, whatever it found.
  std::vector<int64_t> scannedTracks() const;
  // kDefectFixed or kDefectIgnored, replacing the track's earlier verdict.
  Status setDefectStatus(int64_t trackId, std::string_view status, int64_t at);
  std::map<int64_t, std::string> defectStatuses() const;

  // Which present tracks a pass over the library takes: all of them, those
  // lacking a waveform or a defect scan, or those lacking a defect scan.
  enum class Need { everything, analysis, defectScan };
  struct TrackPath {
    int64_t id = 0;
    std::string path;
  };
  // Live tracks whose file is present, by id, that lack what `need` says.
  std::vector<TrackPath> presentTracks(Need need) const;
};

}  // namespace orvel
