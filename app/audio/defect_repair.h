// Mends what the defect scan found and saves the result as a copy beside the
// user's file, in the file's own format: "Track (fix).mp3". The user's file is
// never written. Encoding is left to fix_encode.py (the `ffmpeg` program),
// which keeps the source's format, rate, channels and tags. Nothing here
// throws; every failure comes back as a RepairResult with a message for the
// user. Safe to call from a worker thread.
#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "app/audio/decoder.h"
#include "app/audio/defect_scan.h"

namespace orvel::audio {

// How to run fix_encode.py: `python leadingArgs… script MENDED SOURCE OUTPUT`.
struct RepairTools {
  std::filesystem::path python;
  std::vector<std::string> leadingArgs;  // {"python3"} when python is /usr/bin/env
  std::filesystem::path script;
};

struct RepairResult {
  bool ok{};
  std::filesystem::path output;  // the copy written; empty when none was
  bool lossless{};               // the copy is as lossless as the source
  std::string message;           // one line for the user
};

class DefectRepair {
 public:
  DefectRepair() = delete;

  // The samples a repair replaces, [begin, end) in frames.
  struct Gap {
    size_t begin{};
    size_t end{};
  };
  // A click: from just before the first sample thrown off the waveform to
  // just after the last, found around the finding (up to 2 ms after it);
  // when the audio shows no such samples there, 3 samples before to 1 ms
  // after. A dropout: its run of silence. Never reaches past `frames`.
  static Gap gapOf(const MultiChannelAudio& audio, const DefectScan::Defect& defect);

  // Replaces every finding's gap, in every channel, with audio predicted from
  // both sides: a click from autoregressive models of the audio before and
  // after it, crossfaded; a dropout from the mirrored neighbouring audio,
  // joined to each side by the same predictions so neither edge steps. The
  // result stays inside the range of the audio around each gap.
  static void mend(MultiChannelAudio& audio, std::span<const DefectScan::Defect> defects);

  // "Track (fix).mp3" beside the source; " (fix 2)", " (fix 3)"… when taken.
  static std::filesystem::path fixName(const std::filesystem::path& source);

  // Decodes the source, mends it and has the script encode the copy.
  static RepairResult repair(const std::filesystem::path& path,
                             std::span<const DefectScan::Defect> defects, const RepairTools& tools);
};

}  // namespace orvel::audio
