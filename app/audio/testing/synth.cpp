#include "app/audio/testing/synth.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace orvel::audio::testing {
namespace {

constexpr double kTwoPi = 2 * std::numbers::pi;

// A small fixed generator: std:: distributions differ between libraries.
struct Noise {
  uint32_t state;
  float next() {
    state = state * 1664525u + 1013904223u;
    return float(state >> 8) / float(1u << 23) - 1.0f;  // [-1, 1)
  }
};

double midiHz(double note) {
  return 440.0 * std::pow(2.0, (note - 69.0) / 12.0);
}

void addTone(std::vector<float>& out, size_t from, size_t length, double hz, double amp, int rate,
             double decay) {
  const size_t end = std::min(out.size(), from + length);
  const double fade = rate * 0.005;  // 5 ms edges: no clicks of our own
  for (size_t i = from; i < end; ++i) {
    const double t = double(i - from) / rate;
    const double edge = std::min({1.0, double(i - from) / fade, double(end - i) / fade});
    const double env = amp * edge * std::exp(-decay * t);
    // Three harmonics, as a soft synth pad has.
    const double ph = kTwoPi * hz * t;
    out[i] += float(env * (std::sin(ph) + 0.4 * std::sin(2 * ph) + 0.2 * std::sin(3 * ph)));
  }
}

}  // namespace

std::vector<float> sine(double hz, double seconds, int rate, double amplitude) {
  std::vector<float> out(size_t(seconds * rate));
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = float(amplitude * std::sin(kTwoPi * hz * double(i) / rate));
  return out;
}

std::vector<float> square(double hz, double seconds, int rate, double amplitude) {
  std::vector<float> out(size_t(seconds * rate));
  const double half = rate / hz / 2;
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = float(size_t(double(i) / half) % 2 == 0 ? amplitude : -amplitude);
  return out;
}

const char* keyName(int tonic, bool minor) {
  static const char* const major[] = {"C",  "Db", "D",  "Eb", "E",  "F",
                                      "F#", "G",  "Ab", "A",  "Bb", "B"};
  static const char* const minorNames[] = {"Cm",  "C#m", "Dm",  "Ebm", "Em",  "Fm",
                                           "F#m", "Gm",  "G#m", "Am",  "Bbm", "Bm"};
  const int pc = ((tonic % 12) + 12) % 12;
  return minor ? minorNames[pc] : major[pc];
}

std::vector<float> music(const MusicPiece& piece) {
  const int rate = piece.rate;
  std::vector<float> out(size_t(piece.seconds * rate), 0.0f);
  Noise noise{piece.seed * 2654435761u + 1};
  const double beat = 60.0 / piece.bpm;
  const size_t beatLen = size_t(beat * rate);
  const size_t beats = size_t(piece.seconds / beat);

  if (piece.drums) {
    for (size_t b = 0; b < beats; ++b) {
      const size_t at = size_t(double(b) * beat * rate);
      const float vel = 0.85f + 0.15f * std::abs(noise.next());
      // Kick: a falling sine, 120 → 45 Hz.
      double phase = 0;
      for (size_t i = 0; i < size_t(0.18 * rate) && at + i < out.size(); ++i) {
        const double t = double(i) / rate;
        phase += kTwoPi * (45 + 75 * std::exp(-t * 30)) / rate;
        out[at + i] += float(vel * 0.55 * std::exp(-t * 18) * std::sin(phase));
      }
      // Snare on 2 and 4.
      if (b % 2 == 1)
        for (size_t i = 0; i < size_t(0.12 * rate) && at + i < out.size(); ++i) {
          const double t = double(i) / rate;
          out[at + i] +=
              float(0.22 * std::exp(-t * 30) * (noise.next() + 0.5 * std::sin(kTwoPi * 190 * t)));
        }
      // Closed hat on the off-beat: noise, differenced to take the lows out.
      const size_t hat = at + beatLen / 2;
      float last = 0;
      for (size_t i = 0; i < size_t(0.04 * rate) && hat + i < out.size(); ++i) {
        const float n = noise.next();
        out[hat + i] += float(0.12 * std::exp(-double(i) / rate * 90)) * (n - last);
        last = n;
      }
    }
  }

  if (piece.chords) {
    // Chord roots in semitones above the tonic, and each chord's intervals.
    struct Chord {
      int root;
      int third;
      int fifth;
    };
    constexpr Chord I{0, 4, 7}, IV{5, 4, 7}, V{7, 4, 7}, vi{9, 3, 7};
    constexpr Chord i{0, 3, 7}, iv{5, 3, 7}, VI{8, 4, 7}, VII{10, 4, 7};
    const Chord majorProgs[4][4] = {{I, IV, V, I}, {I, vi, IV, V}, {I, V, vi, IV}, {vi, IV, I, V}};
    const Chord minorProgs[4][4] = {{i, iv, V, i}, {i, VI, iv, V}, {i, VII, VI, V}, {VI, iv, i, V}};
    const int which = ((piece.progression % 4) + 4) % 4;
    const Chord* prog = piece.minor ? minorProgs[which] : majorProgs[which];
    const size_t bar = beatLen * 4;
    const int base = 60 + piece.tonic;  // around middle C
    for (size_t start = 0, n = 0; start < out.size(); start += bar, ++n) {
      const Chord& c = prog[n % 4];
      const double amp = 0.07 * (0.9 + 0.1 * std::abs(noise.next()));
      for (int interval : {0, c.third, c.fifth})
        addTone(out, start, bar, midiHz(base + c.root + interval - (c.root > 6 ? 12 : 0)), amp,
                rate, 0.4);
      addTone(out, start, bar, midiHz(base - 24 + c.root), 0.12, rate, 0.8);
    }
  }

  if (piece.melody) {
    // Its own generator, so a piece with a melody keeps the drums and chords
    // of the same piece without one.
    Noise dice{piece.seed * 40503u + 17};
    const int majorScale[] = {0, 2, 4, 5, 7, 9, 11};
    const int minorScale[] = {0, 2, 3, 5, 7, 8, 11};
    const int* scale = piece.minor ? minorScale : majorScale;
    const int base = 72 + piece.tonic;
    int degree = 0;
    for (size_t b = 0; b < beats; ++b) {
      const float roll = std::abs(dice.next());
      if (roll < 0.2f) continue;  // a rest
      const int notes = roll < 0.6f ? 1 : 2;
      for (int k = 0; k < notes; ++k) {
        // Mostly steps, sometimes a leap, kept within an octave and a half.
        degree = std::clamp(degree + int(dice.next() * 4.0f), -3, 9);
        const int octave = degree < 0 ? -1 : degree / 7;
        const int note = base + 12 * octave + scale[((degree % 7) + 7) % 7];
        const size_t at = size_t((double(b) + k * 0.5) * beat * rate);
        addTone(out, at, beatLen / size_t(notes), midiHz(note), 0.08, rate, 2.0);
      }
    }
  }

  float peak = 0;
  for (float x : out) peak = std::max(peak, std::abs(x));
  const float scale = peak > 0.85f ? 0.85f / peak : 1.0f;
  if (scale != 1.0f)
    for (float& x : out) x *= scale;
  return out;
}

void addClick(std::vector<float>& samples, size_t at, double height, int width) {
  for (int k = 0; k < width && at + size_t(k) < samples.size(); ++k)
    samples[at + size_t(k)] = float(
        std::clamp(double(samples[at + size_t(k)]) + (k % 2 == 0 ? height : -height), -1.0, 1.0));
}

void addDropout(std::vector<float>& samples, size_t at, size_t length) {
  std::fill(samples.begin() + long(std::min(at, samples.size())),
            samples.begin() + long(std::min(at + length, samples.size())), 0.0f);
}

}  // namespace orvel::audio::testing
