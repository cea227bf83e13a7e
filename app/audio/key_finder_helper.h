// Runs the separate orvel-keyfinder program (built on qm-dsp, so it stays a
// program of its own) on a track and reads back its answer. The audio goes to
// it as a temporary 32-bit float WAV file of mono at 44,100 Hz, made from at
// most the first 180 seconds of the track: enough to settle a key, and it
// keeps the temporary file near 30 MB. That file is removed whatever happens.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>

namespace orvel::audio {

class KeyFinderHelper {
 public:
  KeyFinderHelper() = delete;

  // The most audio handed to the helper.
  static constexpr double kMaxSeconds = 180;
  static constexpr int kRate = 44100;

  // The key as the catalogue writes it ("Am"), or nullopt when the helper is
  // not an executable file, the track does not decode, or the helper fails,
  // times out or answers with something that is not a key. `helper` is the
  // path of orvel-keyfinder; finding it is the app's business.
  static std::optional<std::string> key(const std::filesystem::path& audioPath,
                                        const std::filesystem::path& helper);
  // The same for audio already decoded (mono at 44,100 Hz), so one analysis
  // pass decodes once. Only the first kMaxSeconds are used.
  static std::optional<std::string> key(std::span<const float> mono44100,
                                        const std::filesystem::path& helper);
};

}  // namespace orvel::audio
