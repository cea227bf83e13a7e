#include "app/audio/defect_scan.h"

#include <algorithm>
#include <cmath>

#include "core/store/orvel_db.h"

namespace orvel::audio {
namespace {

using Defect = DefectScan::Defect;

// Shorter audio holds barely one level window; a judgement on it would rest
// on too little to trust.
constexpr size_t kMinSamples = 4097;
constexpr double kSilentLevel = 1e-7;
// Below both, a jump is inaudible whatever its ratio to the level around it.
constexpr double kQuietSample = 0.001;
constexpr double kQuietJump = 0.004;
constexpr double kClickRatio = 250;
// Against the 4 ms around it a click must still stand out; a transient (a
// kick's attack) is loud over several samples and fails this.
constexpr double kNearRatio = 12;

double sampleAt(std::span<const float> x, size_t j) {
  return static_cast<double>(x[j]);
}

// Music changes its slope little from one sample to the next; a sample
// thrown off the waveform changes it a lot, twice over.
double jump(std::span<const float> x, size_t j) {
  if (j < 2) return 0;
  return std::abs(sampleAt(x, j) - 2 * sampleAt(x, j - 1) + sampleAt(x, j - 2));
}

void findClicks(std::span<const float> x, int rate, std::vector<Defect>& out) {
  const size_t n = x.size();
  const auto r = static_cast<size_t>(rate);
  const size_t wide = r / 20;   // 50 ms either side: the local level
  const size_t near = r / 500;  // 2 ms either side: the click's own surroundings
  const size_t skip = r / 50;   // one click per 20 ms at most
  if (wide == 0 || 2 * wide > n) return;

  // The wide window slides, its sum carried in double: float would lose the
  // small jumps of quiet passages against the sum of a loud one. The jumps in
  // the window are kept in a ring (100 ms, not a copy of the track), so each
  // sample's jump is computed once. The sample leaving the window and the one
  // entering share a slot, and the window's middle sits half a ring on.
  const size_t span = 2 * wide;
  std::vector<double> ring(span);
  double sum = 0;
  for (size_t j = 0; j < span; ++j) {
    ring[j] = jump(x, j);
    sum += ring[j];
  }
  const double perSample = 1.0 / static_cast<double>(span);
  const size_t end = n - wide;
  size_t i = wide;
  size_t slot = 0;  // (i − wide) mod span
  const auto step = [&] {
    const double entering = jump(x, i + wide);
    sum += entering - ring[slot];
    ring[slot] = entering;
    slot = slot + 1 == span ? 0 : slot + 1;
    ++i;
  };

  while (i < end) {
    const double d = ring[slot < wide ? slot + wide : slot - wide];
    const double level = std::max(sum, 0.0) * perSample;
    // The ratio test first: it fails for nearly every sample.
    if (d > kClickRatio * level && level > kSilentLevel &&
        !(std::abs(sampleAt(x, i)) <= kQuietSample && d <= kQuietJump)) {
      const size_t lo = i >= near ? i - near : 0;
      const size_t hi = std::min(n, i + near);
      double nearSum = 0;
      for (size_t j = lo; j < hi; ++j) nearSum += jump(x, j);
      const double nearLevel = hi > lo ? nearSum / static_cast<double>(hi - lo) : 0;
      if (nearLevel > 0 && d / nearLevel > kNearRatio) {
        out.push_back({Defect::Kind::click, static_cast<double>(i) / rate, d / level});
        for (size_t k = 0; k < skip && i < end; ++k) step();
        continue;
      }
    }
    step();
  }
}

void findDropouts(std::span<const float> x, int rate, std::vector<Defect>& out) {
  const size_t n = x.size();
  const auto r = static_cast<size_t>(rate);
  // The first and last second are left out: intros and outros may start or
  // end on digital silence of any length.
  if (n <= 2 * r) return;
  size_t runStart = 0;
  size_t runLength = 0;
  // Longer than 10 ms, shorter than 250 ms; compared in integers so a rate
  // like 44100 puts the bounds exactly where they are meant to be. Shorter
  // runs are zero crossings of quiet audio, longer ones intended breaks.
  const auto closeRun = [&] {
    if (runLength * 100 > r && runLength * 4 < r)
      out.push_back({Defect::Kind::dropout, static_cast<double>(runStart) / rate,
                     static_cast<double>(runLength) / rate * 1000});
    runLength = 0;
  };
  for (size_t i = r; i < n - r; ++i) {
    if (x[i] == 0.0f) {
      if (runLength == 0) runStart = i;
      ++runLength;
    } else if (runLength > 0) {
      closeRun();
    }
  }
  // A run still open at the walk's end is judged by what the walk saw, as if
  // the music came back there: the last second was left out on purpose, and
  // a gap that starts inside the walk must not escape by reaching it.
  if (runLength > 0) closeRun();
}

// A dropout's first and last samples are steps into and out of silence, and
// the click detector sees them as clicks. They are the dropout itself, and
// bridging it mends them, so listing them again would only confuse.
constexpr double kDropoutEdgeSeconds = 0.003;

void dropDropoutEdges(std::vector<Defect>& findings, int rate) {
  std::vector<std::pair<double, double>> spans;
  for (const Defect& d : findings)
    if (d.kind == Defect::Kind::dropout)
      spans.emplace_back(d.atSeconds, d.atSeconds + d.severity / 1000.0);
  if (spans.empty()) return;
  const double margin = kDropoutEdgeSeconds + 1.0 / rate;
  std::erase_if(findings, [&](const Defect& d) {
    if (d.kind != Defect::Kind::click) return false;
    return std::any_of(spans.begin(), spans.end(), [&](const auto& s) {
      return std::abs(d.atSeconds - s.first) <= margin ||
             std::abs(d.atSeconds - s.second) <= margin;
    });
  });
}

void sortByTime(std::vector<Defect>& findings) {
  std::stable_sort(findings.begin(), findings.end(),
                   [](const Defect& a, const Defect& b) { return a.atSeconds < b.atSeconds; });
}

}  // namespace

nlohmann::ordered_json DefectScan::Defect::toJson() const {
  nlohmann::ordered_json j;
  j["kind"] = kindName(kind);
  j["atSeconds"] = atSeconds;
  j["severity"] = severity;
  return j;
}

const char* DefectScan::kindName(Defect::Kind kind) {
  return kind == Defect::Kind::click ? "click" : "dropout";
}

std::optional<Defect> DefectScan::fromRow(const DefectRow& row) {
  Defect d;
  if (row.kind == kindName(Defect::Kind::click))
    d.kind = Defect::Kind::click;
  else if (row.kind == kindName(Defect::Kind::dropout))
    d.kind = Defect::Kind::dropout;
  else
    return std::nullopt;
  d.atSeconds = row.positionMs / 1000;
  d.severity = row.severity;
  return d;
}

std::vector<Defect> DefectScan::stored(const OrvelDB& db, int64_t trackId) {
  std::vector<Defect> out;
  for (const DefectRow& row : db.analysis().defects(trackId))
    if (auto d = fromRow(row)) out.push_back(*d);
  return out;
}

std::optional<MonoAudio> DefectScan::decodeMono(const std::filesystem::path& path) {
  return Decoder::decodeMono(path);
}

std::vector<Defect> DefectScan::analyse(std::span<const float> samples, int rate) {
  std::vector<Defect> out;
  if (samples.size() < kMinSamples || rate <= 0) return out;
  findClicks(samples, rate, out);
  findDropouts(samples, rate, out);
  dropDropoutEdges(out, rate);
  sortByTime(out);
  return out;
}

std::vector<Defect> DefectScan::dropRhythmic(std::vector<Defect> findings) {
  sortByTime(findings);
  std::vector<double> times;
  for (const Defect& d : findings)
    if (d.kind == Defect::Kind::click) times.push_back(d.atSeconds);
  if (times.size() <= 2) return findings;

  // Two clicks closer than 80 ms are one crackle, not two beats.
  std::vector<double> intervals;
  for (size_t k = 1; k < times.size(); ++k)
    if (times[k] - times[k - 1] > 0.08) intervals.push_back(times[k] - times[k - 1]);
  if (intervals.empty()) return findings;
  const double period = *std::min_element(intervals.begin(), intervals.end());
  // Slower than 2.5 s between hits is no rhythm a track keeps.
  if (period >= 2.5) return findings;

  size_t rhythmic = 0;
  for (double gap : intervals) {
    const double beats = std::round(gap / period);
    if (beats >= 1 && std::abs(gap - beats * period) < 0.06 * period) ++rhythmic;
  }
  // In integers, so exactly 70 % counts however the division would round.
  if (rhythmic * 10 < intervals.size() * 7) return findings;
  std::erase_if(findings, [](const Defect& d) { return d.kind == Defect::Kind::click; });
  return findings;
}

Result<std::vector<Defect>> DefectScan::scanTrack(OrvelDB& db, int64_t trackId,
                                                  const std::filesystem::path& path) {
  const auto audio = decodeMono(path);
  if (!audio) return Status::failed("the audio could not be read");
  std::vector<Defect> findings = dropRhythmic(analyse(audio->samples, audio->rate));
  if (Status s = record(db, trackId, findings); !s) return s;
  return findings;
}

Status DefectScan::record(OrvelDB& db, int64_t trackId, std::span<const Defect> findings) {
  std::vector<DefectRow> rows;
  rows.reserve(findings.size());
  for (const Defect& d : findings)
    rows.push_back({kindName(d.kind), d.atSeconds * 1000, d.severity});
  return db.analysis().recordDefectScan(trackId, rows, unixNow());
}

}  // namespace orvel::audio
