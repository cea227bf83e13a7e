#include "app/audio/analyzer.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "app/audio/key_detect.h"
#include "app/audio/key_finder_helper.h"
#include "app/audio/tempo.h"

namespace orvel::audio {
namespace {

constexpr int kHelperRate = 44100;
// Quieter than this is silence whatever the loudest moment was (-70 dBFS).
constexpr double kSilence = 0.0003;

// RMS of consecutive windows.
std::vector<double> windowLevels(std::span<const float> samples, size_t window) {
  std::vector<double> levels;
  if (window == 0) return levels;
  for (size_t at = 0; at + window <= samples.size(); at += window) {
    double sum = 0;
    for (size_t i = at; i < at + window; ++i) sum += double(samples[i]) * double(samples[i]);
    levels.push_back(std::sqrt(sum / double(window)));
  }
  return levels;
}

double thresholdOf(std::span<const double> levels) {
  const double loudest = *std::max_element(levels.begin(), levels.end());
  return std::max(loudest * std::pow(10.0, -Analyzer::kEdgeDecibels / 20.0), kSilence);
}

std::optional<double> firstLoud(std::span<const double> levels) {
  if (levels.empty()) return std::nullopt;
  const double threshold = thresholdOf(levels);
  for (size_t w = 0; w < levels.size(); ++w)
    if (levels[w] >= threshold) return double(w) * Analyzer::kEdgeWindowSeconds * 1000.0;
  return std::nullopt;
}

std::optional<double> lastLoud(std::span<const double> levels, double startSec) {
  if (levels.empty()) return std::nullopt;
  const double threshold = thresholdOf(levels);
  for (size_t w = levels.size(); w-- > 0;)
    if (levels[w] >= threshold)
      return (startSec + double(w + 1) * Analyzer::kEdgeWindowSeconds) * 1000.0;
  return std::nullopt;
}

}  // namespace

std::optional<MonoAudio> Analyzer::decodeMono(const std::filesystem::path& path,
                                              double maxSeconds) {
  return Decoder::decodeMono(path, {.maxSeconds = maxSeconds});
}

std::optional<std::string> Analyzer::detectKey(std::span<const float> samples, int rate) {
  return audio::detectKey(samples, rate);
}

std::optional<std::string> Analyzer::key(std::span<const float> samples, int rate,
                                         const std::filesystem::path& helper) {
  if (!helper.empty()) {
    const auto head = samples.first(std::min(samples.size(), size_t(kMaxSeconds * rate)));
    std::optional<std::string> found;
    if (rate == kHelperRate) {
      found = KeyFinderHelper::key(head, helper);
    } else {
      const std::vector<float> at44 = resample(head, rate, kHelperRate);
      if (!at44.empty()) found = KeyFinderHelper::key(at44, helper);
    }
    if (found) return found;
  }
  return detectKey(samples, rate);
}

std::optional<double> Analyzer::leadIn(std::span<const float> samples, int rate) {
  if (rate <= 0) return std::nullopt;
  return firstLoud(windowLevels(samples, size_t(kEdgeWindowSeconds * rate)));
}

std::optional<double> Analyzer::tailOut(std::span<const float> samples, int rate, double startSec) {
  if (rate <= 0) return std::nullopt;
  const auto levels = windowLevels(samples, size_t(kEdgeWindowSeconds * rate));
  if (levels.empty()) return std::nullopt;
  const double threshold = thresholdOf(levels);
  for (size_t w = levels.size(); w-- > 0;)
    if (levels[w] >= threshold) return (startSec + double(w + 1) * kEdgeWindowSeconds) * 1000.0;
  return std::nullopt;
}

std::optional<double> Analyzer::tailOut(const std::filesystem::path& path) {
  const auto info = Decoder::probe(path);
  if (!info) return std::nullopt;
  const double start = std::max(0.0, info->durationSec - kTailSeconds);
  auto tail = Decoder::decodeMono(path, {.startSec = start});
  if (!tail) return std::nullopt;
  return tailOut(tail->samples, tail->rate, start);
}

AnalysisResult Analyzer::analyze(const MonoAudio& audio, const AnalyzerSettings& settings) {
  AnalysisResult r;
  const std::span<const float> all(audio.samples);
  const auto head = all.first(std::min(all.size(), size_t(kMaxSeconds * audio.rate)));
  r.bpm = detectBPM(head, audio.rate, settings.bpmCeiling);
  r.key = key(head, audio.rate, settings.keyHelper);
  // One set of window levels serves both ends: the in cue is judged on the
  // stretch the tempo and key come from, the out cue on everything decoded.
  if (audio.rate > 0) {
    const auto levels = windowLevels(all, size_t(kEdgeWindowSeconds * audio.rate));
    const size_t headWindows = size_t(double(head.size()) / (kEdgeWindowSeconds * audio.rate));
    r.inMs = firstLoud(std::span<const double>(levels).first(std::min(headWindows, levels.size())));
    r.outMs = lastLoud(levels, 0);
  }
  return r;
}

AnalysisResult Analyzer::analyze(const std::filesystem::path& path,
                                 const AnalyzerSettings& settings) {
  auto audio = decodeMono(path);
  if (!audio) return {};
  AnalysisResult r = analyze(*audio, settings);
  // Only the start was decoded; the end is looked for in the file's tail.
  if (auto info = Decoder::probe(path); info && info->durationSec > kMaxSeconds)
    r.outMs = tailOut(path);
  return r;
}

}  // namespace orvel::audio
