#include "bench/sample_audio.h"

#include <fmt/format.h>

#include <fstream>
#include <stdexcept>

#include "app/audio/audio_file_writer.h"
#include "app/audio/testing/synth.h"
#include "core/testing/audio_files.h"
#include "core/testing/temp_dir.h"
#include "core/text/key_names.h"
#include "core/text/split.h"

namespace orvel::sample {

using testing::AudioFormat;

namespace {

AudioFormat formatFor(const std::string& path) {
  const std::string ext = extensionOf(path);
  if (ext == "flac") return AudioFormat::flac;
  if (ext == "m4a") return AudioFormat::m4a;
  if (ext == "wav") return AudioFormat::wav;
  if (ext == "aiff") return AudioFormat::aiff;
  return AudioFormat::mp3;
}

}  // namespace

void writeAudioFiles(const std::vector<SampleTrack>& tracks, double musicSeconds) {
  testing::TempDir scratch;
  for (size_t i = 0; i < tracks.size(); ++i) {
    const SampleTrack& t = tracks[i];
    testing::AudioTags tags;
    tags.title = t.file.title;
    tags.artist = t.file.artist;
    tags.album = t.file.album;
    tags.genre = t.file.genre;
    tags.year = t.year;
    tags.bpm = fmt::format("{:.0f}", t.bpm);
    tags.key = t.key;
    if (!t.comment.empty()) tags.comment = t.comment;
    if (musicSeconds <= 0) {
      testing::writeAudioFile(t.file.path, formatFor(t.file.path), tags);
      continue;
    }
    audio::testing::MusicPiece piece;
    piece.bpm = t.bpm;
    piece.seconds = musicSeconds;
    piece.seed = uint32_t(i + 1);
    if (auto key = MusicKey::parse(KeyColor::standardName(t.key).value_or(t.key))) {
      piece.tonic = key->first;
      piece.minor = key->second;
    }
    if (i % 2 == 1) {
      tags.bpm.reset();
      tags.key.reset();
    }
    const auto mono = audio::testing::music(piece);
    const auto wav = scratch.path() / "music.wav";
    if (!audio::writeWav(wav, std::vector<std::vector<float>>{mono, mono}, piece.rate))
      throw std::runtime_error("cannot write " + wav.string());
    testing::writeAudioFileFrom(wav, t.file.path, formatFor(t.file.path), tags);
  }
}

void writeDemoExtras(const std::filesystem::path& root) {
  testing::AudioTags kick;
  kick.title = "Kick 01";
  kick.genre = "One Shots";
  testing::writeAudioFile(root / "Samples" / "Drum Loops" / "kick 01.wav", AudioFormat::wav, kick);
  testing::writeAudioFile(root / "Samples" / "Drum Loops" / "hat loop 124.WAV", AudioFormat::wav);
  std::ofstream(root / "Samples" / "clip.m4v") << "not audio";
  std::ofstream(root / "Samples" / "cover.jpg") << "not audio";
}

}  // namespace orvel::sample
