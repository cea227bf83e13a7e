#include "bench/sample_audio.h"

#include <fmt/format.h>

#include <fstream>

#include "core/testing/audio_files.h"
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

void writeAudioFiles(const std::vector<SampleTrack>& tracks) {
  for (const auto& t : tracks) {
    testing::AudioTags tags;
    tags.title = t.file.title;
    tags.artist = t.file.artist;
    tags.album = t.file.album;
    tags.genre = t.file.genre;
    tags.year = t.year;
    tags.bpm = fmt::format("{:.0f}", t.bpm);
    tags.key = t.key;
    if (!t.comment.empty()) tags.comment = t.comment;
    testing::writeAudioFile(t.file.path, formatFor(t.file.path), tags);
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
