// Tempo, key and the automatic in and out cues of one file. Every step gives
// "no value" rather than an error: an unreadable file, a missing helper, a
// stretch too short to judge. The track then keeps what it had.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "app/audio/decoder.h"

namespace orvel::audio {

struct AnalysisResult {
  std::optional<double> bpm;
  std::optional<std::string> key;
  std::optional<double> inMs;   // where the music starts
  std::optional<double> outMs;  // where it ends
};

struct AnalyzerSettings {
  double bpmCeiling = 0;            // the user's "bpmCeiling"; counts from 100 up
  std::filesystem::path keyHelper;  // orvel-keyfinder; empty: the built-in detector only
};

class Analyzer {
 public:
  Analyzer() = delete;
  // Tempo and key are judged on at most this much of the start of a file.
  static constexpr double kMaxSeconds = 180.0;
  // How far below its loudest moment the music has to fall to count as
  // started or ended, and the window it is measured in.
  static constexpr double kEdgeDecibels = 30.0;
  static constexpr double kEdgeWindowSeconds = 0.05;
  // How much of a file's end tailOut(path) decodes.
  static constexpr double kTailSeconds = 60.0;

  // Decodes up to kMaxSeconds, then tempo, key (the helper first, else the
  // built-in detector), the in cue, and the out cue through tailOut.
  static AnalysisResult analyze(const std::filesystem::path& path,
                                const AnalyzerSettings& settings = {});
  // The same on audio already decoded from the start of the file; the out
  // cue is found in it too, so pass the whole file when it is at hand.
  static AnalysisResult analyze(const MonoAudio& audio, const AnalyzerSettings& settings = {});

  static std::optional<MonoAudio> decodeMono(const std::filesystem::path& path,
                                             double maxSeconds = kMaxSeconds);
  static std::optional<std::string> detectKey(std::span<const float> samples, int rate);
  // The key through the helper program, else the built-in detector.
  static std::optional<std::string> key(std::span<const float> samples, int rate,
                                        const std::filesystem::path& helper);

  // Milliseconds from the file's start to where the music ends: the end of
  // the last window within kEdgeDecibels of the loudest one in the tail.
  static std::optional<double> tailOut(const std::filesystem::path& path);
  static std::optional<double> tailOut(std::span<const float> samples, int rate,
                                       double startSec = 0);
  // Milliseconds to where the music starts: the first such window.
  static std::optional<double> leadIn(std::span<const float> samples, int rate);
};

}  // namespace orvel::audio
