// Audio made in code for tests, benchmarks and the demo: tones, and short
// pieces of music with a known tempo and key (drums on the beat, a chord
// progression with bass), plus the damage a defect scan must find. Every
// generator is deterministic: the same arguments give the same samples on
// every machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orvel::audio::testing {

std::vector<float> sine(double hz, double seconds, int rate, double amplitude = 0.5);
// ±amplitude, switching every half period.
std::vector<float> square(double hz, double seconds, int rate, double amplitude = 1.0);

struct MusicPiece {
  double bpm = 120;
  int tonic = 0;  // pitch class, C = 0 … B = 11
  bool minor = false;
  double seconds = 20;
  int rate = 44100;
  uint32_t seed = 1;  // varies voicing, velocities and the noise
  bool drums = true;
  bool chords = true;
  // Which four-bar progression the chords follow: 0 is the cadence that
  // states the key; 1, 2 and 3 are other common ones in the same key (see
  // music()). Different progressions make different songs over the same
  // tempo and key.
  int progression = 0;
  // A lead line over the chords whose notes and rhythm the seed chooses;
  // off by default, so the pieces other code relies on stay as they were.
  bool melody = false;
};
// Four-to-the-floor drums (kick on every beat, snare on 2 and 4, hats on the
// off-beats) over chords with bass, a chord per bar. Progression 0 is the
// cadence that states the key: I–IV–V–I in major, i–iv–V–i (with the raised
// leading note) in minor. 1: I–vi–IV–V / i–VI–iv–V; 2: I–V–vi–IV / i–VII–VI–V;
// 3: vi–IV–I–V / VI–iv–i–V. Peaks stay below 0.9.
std::vector<float> music(const MusicPiece& piece);

// The key's name as the catalogue writes it: "C", "F#", "Bbm"…
const char* keyName(int tonic, bool minor);

// Damage, in place. A click: `width` samples pushed far off the waveform
// (alternating sign, so the second difference spikes). A dropout: `length`
// samples set to exactly 0.
void addClick(std::vector<float>& samples, size_t at, double height = 0.6, int width = 2);
void addDropout(std::vector<float>& samples, size_t at, size_t length);

}  // namespace orvel::audio::testing
