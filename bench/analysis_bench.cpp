// Analysis measured against its peers, on audio generated here:
//  (a) the in-process pass (tempo, built-in key, waveform, defect scan,
//      fingerprint from one decode) against decoding alone with
//      `ffmpeg -threads 1 … -f null -`, and the whole pass with the key
//      helper as a real-time factor on one core;
//  (b) tempo accuracy of our analyser next to `aubio tempo` on music with
//      known tempi.
// Needs the `ffmpeg`, `aubio` and orvel-keyfinder programs; prints Markdown.
#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "app/audio/analysis_pass.h"
#include "app/audio/audio_file_writer.h"
#include "app/audio/fingerprint.h"
#include "app/audio/subprocess.h"
#include "app/audio/tempo.h"
#include "app/audio/testing/synth.h"
#include "app/audio/waveform.h"
#include "core/testing/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace orvel::audio;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

bool encodeMp3(const fs::path& wav, const fs::path& mp3) {
  auto r = runProcess({"/usr/bin/ffmpeg", "-v", "error", "-y", "-i", wav.string(), "-codec:a",
                       "libmp3lame", "-b:a", "320k", mp3.string()});
  return r && r->exitStatus == 0;
}

double ffmpegDecodeSeconds(const fs::path& file) {
  const auto t = Clock::now();
  auto r = runProcess(
      {"/usr/bin/ffmpeg", "-v", "error", "-threads", "1", "-i", file.string(), "-f", "null", "-"});
  return r && r->exitStatus == 0 ? secondsSince(t) : NAN;
}

// Within 4 %, counting double and half time as right (a DJ reads either).
bool tempoRight(double found, double truth) {
  for (double f : {1.0, 2.0, 0.5})
    if (std::abs(found * f - truth) <= truth * 0.04) return true;
  return false;
}

void passBench(const fs::path& dir, const fs::path& helper, int files, double seconds) {
  std::vector<fs::path> mp3s;
  for (int i = 0; i < files; ++i) {
    testing::MusicPiece piece;
    piece.bpm = 90 + i * 7;
    piece.tonic = i % 12;
    piece.minor = i % 2;
    piece.seconds = seconds;
    piece.seed = uint32_t(i + 1);
    const fs::path wav = dir / fmt::format("p{}.wav", i);
    writeWav(wav, std::vector<std::vector<float>>{testing::music(piece), testing::music(piece)},
             piece.rate);
    mp3s.push_back(dir / fmt::format("p{}.mp3", i));
    if (!encodeMp3(wav, mp3s.back())) {
      fmt::print("ffmpeg could not encode the test files; skipping (a)\n");
      return;
    }
    fs::remove(wav);
  }
  double ffmpeg = 0, decode = 0, pass = 0, withHelper = 0, audio = 0;
  // Where the pass's time goes, stage by stage on the same samples.
  double tempo = 0, key = 0, edges = 0, waveform = 0, scan = 0, fingerprint = 0;
  auto timed = [](double& sum, auto&& work) {
    const auto t = Clock::now();
    work();
    sum += secondsSince(t);
  };
  for (const fs::path& f : mp3s) {
    ffmpeg += ffmpegDecodeSeconds(f);
    auto t = Clock::now();
    auto mono = Decoder::decodeMono(f);
    decode += secondsSince(t);
    audio += mono ? mono->seconds() : 0;
    if (mono) {
      const std::span<const float> x(mono->samples);
      const auto head = x.first(std::min(x.size(), size_t(Analyzer::kMaxSeconds * mono->rate)));
      timed(tempo, [&] { detectBPM(head, mono->rate); });
      timed(key, [&] { Analyzer::detectKey(head, mono->rate); });
      timed(edges, [&] {
        Analyzer::leadIn(head, mono->rate);
        Analyzer::tailOut(x, mono->rate);
      });
      timed(waveform, [&] { WaveformLoader::computeFromFloat(x); });
      timed(scan, [&] { DefectScan::dropRhythmic(DefectScan::analyse(x, mono->rate)); });
      timed(fingerprint, [&] { rawFingerprint(x, mono->rate); });
    }
    t = Clock::now();
    auto r = analyseFile(f, {});
    pass += secondsSince(t);
    if (!r.readable) fmt::print("could not analyse {}\n", f.string());
    PassSettings full;
    full.analyzer.keyHelper = helper;
    t = Clock::now();
    analyseFile(f, full);
    withHelper += secondsSince(t);
  }
  const double n = double(files);
  fmt::print(
      "\n(a) one pass per file, {} MP3 files (320 kbit/s stereo) of {:.0f} s, one thread\n\n",
      files, seconds);
  fmt::print("| measure | per file | x ffmpeg decode | x real time |\n|---|---|---|---|\n");
  auto row = [&](const char* what, double total) {
    fmt::print("| {} | {:.0f} ms | {:.2f}x | {:.0f}x |\n", what, total / n * 1000, total / ffmpeg,
               audio / total);
  };
  row("`ffmpeg -threads 1 -i F -f null -`", ffmpeg);
  row("our decode alone (mono float)", decode);
  row("pass: decode, tempo, built-in key, waveform, scan, fingerprint", pass);
  row("pass with the key helper", withHelper);
  fmt::print("\n| stage (on decoded samples) | per file | x ffmpeg decode |\n|---|---|---|\n");
  for (const auto& [what, t] : {std::pair{"tempo", tempo},
                                {"built-in key", key},
                                {"in/out cues", edges},
                                {"waveform", waveform},
                                {"defect scan", scan},
                                {"fingerprint (first 120 s)", fingerprint}})
    fmt::print("| {} | {:.1f} ms | {:.3f}x |\n", what, t / n * 1000, t / ffmpeg);
  fmt::print(
      "\nbudget: pass <= 1.5x ffmpeg decode ({}); with helper >= 100x real time per core ({})\n",
      pass / ffmpeg <= 1.5 ? "met" : "NOT met", audio / withHelper >= 100 ? "met" : "NOT met");
}

void tempoBench(const fs::path& dir) {
  int ours = 0, aubio = 0, total = 0;
  double oursErr = 0, aubioErr = 0;
  fmt::print(
      "\n(b) tempo, 30 s pieces at known tempi (right: within 4 %, double/half allowed)\n\n");
  fmt::print("| true BPM | ours | aubio tempo |\n|---|---|---|\n");
  for (int i = 0; i < 24; ++i) {
    testing::MusicPiece piece;
    piece.bpm = 78 + i * 4.1;
    piece.tonic = (i * 5) % 12;
    piece.minor = i % 3 == 0;
    piece.seconds = 30;
    piece.seed = uint32_t(100 + i);
    const auto samples = testing::music(piece);
    const fs::path wav = dir / fmt::format("t{}.wav", i);
    writeWav(wav, samples, piece.rate);
    const auto found = detectBPM(samples, piece.rate, 180);
    auto r = runProcess({"/usr/bin/aubio", "tempo", wav.string()});
    double theirs = NAN;
    if (r && r->exitStatus == 0) theirs = std::atof(r->out.c_str());
    ++total;
    const double mine = found.value_or(NAN);
    ours += tempoRight(mine, piece.bpm);
    aubio += tempoRight(theirs, piece.bpm);
    auto err = [&](double v) {
      double best = INFINITY;
      for (double f : {1.0, 2.0, 0.5})
        best = std::min(best, std::abs(v * f - piece.bpm) / piece.bpm);
      return std::isfinite(best) ? best : 1.0;
    };
    oursErr += err(mine);
    aubioErr += err(theirs);
    fmt::print("| {:.1f} | {:.2f} | {:.2f} |\n", piece.bpm, mine, theirs);
    fs::remove(wav);
  }
  fmt::print("| **right** | **{}/{}** | **{}/{}** |\n", ours, total, aubio, total);
  fmt::print("| mean error (after double/half) | {:.2f} % | {:.2f} % |\n", oursErr / total * 100,
             aubioErr / total * 100);
}

}  // namespace

int main(int argc, char** argv) {
  const int files = argc > 1 ? std::atoi(argv[1]) : 6;
  const double seconds = argc > 2 ? std::atof(argv[2]) : 180;
  orvel::testing::TempDir dir;
  passBench(dir.path(), ORVEL_KEYFINDER, files, seconds);
  tempoBench(dir.path());
  return 0;
}
