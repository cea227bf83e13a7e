// One pass over one file: decoded once, then tempo, key, the automatic cues,
// the overview waveform, the defect scan and the fingerprint are all taken
// from the same samples. analyseFile is pure work and may run on any thread;
// storePass writes a result and belongs to the thread that owns the store.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "app/audio/analyzer.h"
#include "app/audio/defect_scan.h"
#include "core/store/status.h"

namespace orvel {
class OrvelDB;
}

namespace orvel::audio {

struct PassSettings {
  AnalyzerSettings analyzer;
};

struct PassResult {
  bool readable = false;
  double seconds = 0;  // length of the decoded audio
  AnalysisResult analysis;
  std::optional<std::vector<uint8_t>> waveform;
  std::vector<DefectScan::Defect> defects;
  std::optional<std::vector<uint8_t>> fingerprint;
};

PassResult analyseFile(const std::filesystem::path& path, const PassSettings& settings = {});

// What storePass changed, for the summary line: only what reached the
// catalogue counts.
struct PassStored {
  bool bpm = false;
  bool key = false;
  bool cues = false;
  bool waveform = false;
  bool scanned = false;
  bool fingerprint = false;
  // Ok, or why a part (or, when the commit failed, all of it) was not stored.
  Status status;
};

// Writes a readable file's results in one transaction: tempo and key only
// where the track has none (never over the user's), the automatic in and out
// cues, the waveform, the defect findings with their scan row, and the raw
// fingerprint. A part that fails is left out and the rest kept; a failed
// commit keeps nothing. An unreadable file writes nothing. `db` belongs to
// the calling thread.
PassStored storePass(OrvelDB& db, int64_t trackId, const PassResult& result);

}  // namespace orvel::audio
