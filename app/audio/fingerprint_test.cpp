#include "app/audio/fingerprint.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <string>
#include <vector>

#include "app/audio/audio_file_writer.h"
#include "app/audio/decoder.h"
#include "app/audio/testing/synth.h"
#include "core/library/duplicates.h"
#include "core/testing/audio_files.h"
#include "core/testing/temp_dir.h"

namespace orvel::audio {
namespace {

using testing::MusicPiece;

struct Version {
  std::string name;
  std::vector<uint32_t> print;
  int64_t ms = 0;
};

class FingerprintTest : public ::testing::Test {
 protected:
  // The piece as a WAV file, made once per piece.
  std::filesystem::path wav(const MusicPiece& piece, const std::string& name) {
    const auto file = dir_ / (name + ".wav");
    const std::vector<float> mono = testing::music(piece);
    EXPECT_TRUE(writeWav(file, std::vector<std::vector<float>>{mono, mono}, piece.rate));
    return file;
  }

  // The WAV encoded with `ffmpegOptions` by the ffmpeg program, then decoded
  // and fingerprinted as analysis does it.
  Version encode(const std::filesystem::path& wav, const std::string& name,
                 const char* ffmpegOptions, const char* extension) {
    const auto file = dir_ / (name + "." + extension);
    orvel::testing::encodeAudioFile(wav, file, ffmpegOptions);
    Version v{name, {}, 0};
    const auto audio = Decoder::decodeMono(file);
    if (!audio) {
      ADD_FAILURE() << "cannot decode " << file;
      return v;
    }
    v.ms = int64_t(audio->seconds() * 1000);
    const auto raw = rawFingerprint(audio->samples, audio->rate);
    if (!raw) {
      ADD_FAILURE() << "no fingerprint for " << file;
      return v;
    }
    v.print = library::fingerprintWords(*raw);
    return v;
  }

  orvel::testing::TempDir dir_;
};

TEST_F(FingerprintTest, ReEncodingsOfASongGroupAndOtherSongsInItsTempoAndKeyDoNot) {
  // Half a minute is enough: the prints of re-encodings agree as closely
  // as over two minutes.
  const MusicPiece song{
      .bpm = 124, .tonic = 9, .minor = true, .seconds = 30, .seed = 3, .melody = true};
  MusicPiece otherMelody = song;
  otherMelody.seed = 4;
  MusicPiece otherProgression = song;
  otherProgression.progression = 2;

  const auto songWav = wav(song, "song");
  const std::vector<Version> versions = {
      encode(songWav, "mp3-128", "-c:a libmp3lame -b:a 128k", "mp3"),
      encode(songWav, "mp3-320", "-c:a libmp3lame -b:a 320k", "mp3"),
      encode(songWav, "flac", "-c:a flac", "flac"),
      encode(songWav, "aac", "-c:a aac -b:a 128k -f ipod", "m4a"),
      encode(wav(otherMelody, "melody"), "other-melody", "-c:a libmp3lame -b:a 128k", "mp3"),
      encode(wav(otherProgression, "progression"), "other-progression", "-c:a flac", "flac")};
  std::vector<library::DuplicateCandidate> tracks;
  std::string rates;  // said when the grouping fails, to show how far off
  for (size_t i = 0; i < versions.size(); ++i) {
    tracks.push_back(
        {.id = int64_t(i + 1), .durationMs = versions[i].ms, .fingerprint = versions[i].print});
    rates += fmt::format("\n{} vs {}: {:.4f}", versions[0].name, versions[i].name,
                         library::bitErrorRate(versions[0].print, versions[i].print).value_or(1));
  }
  EXPECT_THAT(library::findDuplicateGroups(tracks),
              ::testing::ElementsAre(::testing::ElementsAre(1, 2, 3, 4)))
      << rates;
}

}  // namespace
}  // namespace orvel::audio
