#include "app/audio/tap_tempo.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numeric>

namespace orvel::audio {

TapTempo::TapTempo(Clock clock) : clock_(std::move(clock)) {
  if (!clock_)
    clock_ = [] {
      return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
          .count();
    };
}

void TapTempo::tap(std::optional<int64_t> track) {
  const double now = clock_();
  if (!times_.empty() && (now - times_.back() > kRestartAfter || track != target_)) times_.clear();
  target_ = track;
  times_.push_back(now);
  if (times_.size() > kMaxTaps) times_.erase(times_.begin());
  recompute();
}

void TapTempo::clear() {
  times_.clear();
  bpm_.reset();
  target_.reset();
}

void TapTempo::recompute() {
  bpm_.reset();
  if (times_.size() < kMinTaps) return;
  std::vector<double> gaps;
  for (size_t i = 1; i < times_.size(); ++i) gaps.push_back(times_[i] - times_[i - 1]);
  // With enough taps one stumble either way should not move the tempo.
  if (gaps.size() >= 5) {
    std::sort(gaps.begin(), gaps.end());
    gaps = std::vector<double>(gaps.begin() + 1, gaps.end() - 1);
  }
  const double mean = std::accumulate(gaps.begin(), gaps.end(), 0.0) / double(gaps.size());
  if (!(mean > 0.05)) return;
  double bpm = 60.0 / mean;
  while (bpm < 70) bpm *= 2;
  while (bpm > 185) bpm /= 2;
  bpm_ = std::round(bpm * 10) / 10;
}

}  // namespace orvel::audio
