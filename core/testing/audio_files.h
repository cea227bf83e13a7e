// Real audio files for tests, benchmarks and the demo, made here rather than
// taken from anywhere: a short sine tone per format, encoded once per process
// by the `ffmpeg` program, copied for each file and then tagged with TagLib.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace orvel::testing {

enum class AudioFormat { mp3, m4a, alac, aac, flac, wav, aiff, ogg };

struct AudioTags {
  std::optional<std::string> title, artist, album, genre, year, comment, grouping, publisher, bpm,
      key;
  bool id3v23 = false;  // ID3v2.3 instead of 2.4 (MP3, WAV, AIFF)
};

// The usual extension of a format, without the dot ("alac" files end in ".m4a").
std::string_view extensionFor(AudioFormat format);

// Writes a tagged file of about two seconds; creates the parent folders.
// Throws std::runtime_error when the encoder is missing or fails.
void writeAudioFile(const std::filesystem::path& path, AudioFormat format,
                    const AudioTags& tags = {});

// The same with the audio of a WAV file (no quote characters in the paths),
// encoded into the format.
void writeAudioFileFrom(const std::filesystem::path& wav, const std::filesystem::path& path,
                        AudioFormat format, const AudioTags& tags = {});

// The audio of a WAV file encoded with the given `ffmpeg` output options
// ("-c:a libmp3lame -b:a 320k"), untagged: for the encodings the formats
// above do not cover. Throws std::runtime_error when the encoder fails.
void encodeAudioFile(const std::filesystem::path& wav, const std::filesystem::path& path,
                     std::string_view ffmpegOptions);

// The untagged encoded tone, as bytes (for tests that build tags by hand).
std::string audioBody(AudioFormat format);

}  // namespace orvel::testing
