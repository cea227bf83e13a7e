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
  // Ok, or why nothing of the file was stored.
  Status status;
};

// Writes a readable file's results in one transaction: tempo and key only
// where the track has none (never over the user's), the automatic in and out
// cues, the waveform, the defect findings with their scan row, and the raw
// fingerprint. All or nothing: when any part fails nothing of the file is
// kept, and the status says why. An unreadable file writes nothing. The
// automatic cues join the history operation `cuesOpId` (one for a whole
// analysis run) or, empty, an operation of their own. `db` belongs to the
// calling thread.
PassStored storePass(OrvelDB& db, int64_t trackId, const PassResult& result,
                     const std::string& cuesOpId = {});

}  // namespace orvel::audio
