#include "app/audio/key_finder_helper.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "app/audio/audio_file_writer.h"
#include "app/audio/decoder.h"
#include "app/audio/subprocess.h"
#include "app/audio/temp_file.h"
#include "core/text/key_names.h"
#include "core/text/split.h"

namespace orvel::audio {
namespace {

// A 3-minute track takes the helper a few seconds; this only stops one that hangs.
constexpr double kTimeoutSeconds = 120;

bool isExecutableFile(const std::filesystem::path& path) {
  std::error_code ec;
  return std::filesystem::is_regular_file(path, ec) && ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::optional<std::string> KeyFinderHelper::key(const std::filesystem::path& audioPath,
                                                const std::filesystem::path& helper) {
  // Checked first: no point decoding for a helper that is not there.
  if (!isExecutableFile(helper)) return std::nullopt;
  const auto audio = Decoder::decodeMono(audioPath, {.rate = kRate, .maxSeconds = kMaxSeconds});
  if (!audio) return std::nullopt;
  return key(audio->samples, helper);
}

std::optional<std::string> KeyFinderHelper::key(std::span<const float> mono44100,
                                                const std::filesystem::path& helper) {
  if (mono44100.empty() || !isExecutableFile(helper)) return std::nullopt;
  const TempFile wav("key", ".wav");
  if (wav.path().empty()) return std::nullopt;
  const size_t maxSamples = size_t(kMaxSeconds * kRate);
  if (!writeWav(wav.path(), mono44100.first(std::min(mono44100.size(), maxSamples)), kRate,
                WavSample::float32))
    return std::nullopt;
  const auto run = runProcess({helper.string(), wav.path().string()}, kTimeoutSeconds);
  if (!run || run->exitStatus != 0) return std::nullopt;
  const std::string_view answer = trim(run->out);
  if (answer.empty()) return std::nullopt;
  // Read back through the key table, so whatever spelling the helper uses,
  // the catalogue gets its own name for the key, and never stray text.
  return KeyColor::standardName(answer);
}

}  // namespace orvel::audio
