// Tap tempo: the user taps along with the beat and the taps become a BPM.
// Four taps are enough; taps more than two seconds apart, or for another
// track, start a new count. Single-threaded (the window's thread); the clock
// is injectable so the behaviour can be checked without waiting.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace orvel::audio {

class TapTempo {
 public:
  using Clock = std::function<double()>;  // seconds, monotonic
  static constexpr double kRestartAfter = 2.0;
  static constexpr size_t kMaxTaps = 16;
  static constexpr size_t kMinTaps = 4;

  // The default clock is std::chrono::steady_clock.
  explicit TapTempo(Clock clock = {});

  // Records a tap for the track (none: no particular track).
  void tap(std::optional<int64_t> track = std::nullopt);
  void clear();
  // Works out bpm() from the taps held.
  void recompute();

  const std::vector<double>& times() const { return times_; }
  size_t taps() const { return times_.size(); }
  std::optional<double> bpm() const { return bpm_; }
  std::optional<int64_t> target() const { return target_; }
  std::optional<int64_t> focusTrack() const { return focusTrack_; }
  void setFocusTrack(std::optional<int64_t> track) { focusTrack_ = track; }

 private:
  Clock clock_;
  std::vector<double> times_;
  std::optional<double> bpm_;
  std::optional<int64_t> target_;
  std::optional<int64_t> focusTrack_;
};

}  // namespace orvel::audio
