// A file opened once and read from anywhere, as a player needs it: float
// frames, interleaved, at the rate and channel count the caller asks for
// (resampled and mixed by FFmpeg's libswresample), read block by block into
// the caller's buffer, with seeks that land on the exact frame asked for.
//
// Frames are counted at the output rate from the start of the audio; the
// first frame read after open() or seek(n) is frame 0 or frame n. A file
// that cannot be opened or has no audio gives no source and says why.
//
// Thread contract: one thread at a time (a deck's reader thread). Never
// called from a real-time audio callback: it decodes, allocates and reads
// the disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace orvel::audio {

class AudioSource {
 public:
  virtual ~AudioSource() = default;

  // Opens `path` for output at `rate` Hz with `channels` channels (1 or 2:
  // mono is the mean of the file's channels, stereo duplicates a mono file).
  static std::unique_ptr<AudioSource> open(const std::filesystem::path& path, int rate,
                                           int channels, std::string* why = nullptr);

  int rate() const { return rate_; }
  int channels() const { return channels_; }
  int fileRate() const { return fileRate_; }
  // The length in output frames as the container states it; 0 when it does
  // not. Reading may end a little before or after.
  int64_t frames() const { return frames_; }
  // The output frame the next read starts at.
  int64_t position() const { return position_; }

  // Up to `count` frames into `out` (count × channels floats); the frames
  // read, fewer only at the end of the audio (0 there).
  virtual size_t read(float* out, size_t count) = 0;
  // Makes the next read start at output frame `frame` exactly (clamped to
  // 0); false when the file cannot seek there, the position then unchanged.
  virtual bool seek(int64_t frame) = 0;

 protected:
  int rate_ = 0, channels_ = 0, fileRate_ = 0;
  int64_t frames_ = 0, position_ = 0;
};

}  // namespace orvel::audio
