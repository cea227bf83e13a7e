// One FFmpeg decoder for every format the catalogue accepts (mp3, m4a/aac/alac,
// flac, wav, aiff, ogg). Audio comes out as float samples in [-1, 1] per
// channel, or mixed down to mono as the plain mean of the channels, at the
// file's own rate or resampled to a fixed one. A file that cannot be opened,
// has no audio stream, decodes to nothing or stops well short of the length
// its container declares gives std::nullopt; nothing here throws, and every
// FFmpeg object is owned by RAII. Safe to call from several threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orvel::audio {

struct DecodeRequest {
  int rate = 0;           // 0: the file's own rate
  bool mono = true;       // false: every channel of the file
  double startSec = 0;    // where to begin; seeks when above 0
  double maxSeconds = 0;  // 0: to the end of the file
};

// What the stream is, as the container and codec describe it.
struct AudioInfo {
  int rate = 0;  // the file's own rate
  int channels = 0;
  double durationSec = 0;  // 0 when the container does not say
  std::string codec;       // FFmpeg's codec name: "mp3", "flac", "pcm_s16le"…
  bool lossless = false;   // PCM, FLAC, ALAC, WavPack…
};

struct MonoAudio {
  std::vector<float> samples;
  int rate = 0;
  double seconds() const { return rate > 0 ? double(samples.size()) / rate : 0.0; }
};

struct MultiChannelAudio {
  std::vector<std::vector<float>> channels;  // one vector per channel, same length
  int rate = 0;
  size_t frames() const { return channels.empty() ? 0 : channels.front().size(); }
};

// Receives decoded audio block by block: `planes[c][i]` for c < channels
// (1 for a mono request). Returning false stops decoding; the decode then
// reports what it had delivered.
using AudioSink = std::function<bool(const float* const* planes, int channels, size_t frames)>;

class Decoder {
 public:
  Decoder() = delete;

  // The stream's description without decoding; nullopt when unreadable.
  static std::optional<AudioInfo> probe(const std::filesystem::path& path);

  // Streams the request's audio into `sink`. Returns the output rate and
  // channel count, or nullopt for an unreadable or truncated file (the sink
  // may have seen some blocks by then).
  struct StreamFormat {
    int rate = 0;
    int channels = 0;
    size_t frames = 0;     // frames delivered
    bool stopped = false;  // the sink asked to stop
  };
  // `onLength`, when given, hears once before the first block how many
  // frames the container says are coming (0 when it does not say), so a
  // caller can reserve room without opening the file a second time.
  static std::optional<StreamFormat> stream(const std::filesystem::path& path,
                                            const DecodeRequest& request, const AudioSink& sink,
                                            const std::function<void(size_t)>& onLength = {});

  // Mono float, whole file or a range.
  static std::optional<MonoAudio> decodeMono(const std::filesystem::path& path,
                                             const DecodeRequest& request = {});
  // Mono 16-bit at the file's own rate (what the waveform is drawn from).
  static std::optional<std::vector<int16_t>> decodeMono16(const std::filesystem::path& path,
                                                          int* rate = nullptr);
  // Every channel, float, at the file's own rate (what a repair works on).
  static std::optional<MultiChannelAudio> decodeChannels(const std::filesystem::path& path);
};

// Mono audio at another rate, through FFmpeg's resampler; empty on failure.
std::vector<float> resample(std::span<const float> mono, int fromRate, int toRate);

// Float to 16-bit as FFmpeg's converter does it: scaled by 32768, rounded to
// nearest, clipped. Used wherever a 16-bit view of float audio is needed so
// that every path gives the same integers.
inline int16_t toInt16(float x) {
  const float scaled = x * 32768.0f;
  if (scaled != scaled) return 0;  // NaN
  if (scaled <= -32768.0f) return -32768;
  if (scaled >= 32767.0f) return 32767;
  return static_cast<int16_t>(__builtin_lrintf(scaled));
}
void toInt16(std::span<const float> in, std::vector<int16_t>& out);

}  // namespace orvel::audio
