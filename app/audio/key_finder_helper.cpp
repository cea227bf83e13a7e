#include "app/audio/key_finder_helper.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "app/audio/audio_file_writer.h"
#include "app/audio/decoder.h"
#include "app/audio/subprocess.h"
#include "core/text/key_names.h"

namespace orvel::audio {
namespace {

// A 3-minute track takes the helper a few seconds; this only stops one that hangs.
constexpr double kTimeoutSeconds = 120;

bool isExecutableFile(const std::filesystem::path& path) {
  std::error_code ec;
  return std::filesystem::is_regular_file(path, ec) && ::access(path.c_str(), X_OK) == 0;
}

// Reserves a fresh name in the system's temporary folder and removes the
// file again when it goes out of scope.
class TempWav {
 public:
  TempWav() {
    std::error_code ec;
    const auto folder = std::filesystem::temp_directory_path(ec);
    if (ec) return;
    std::string name = (folder / "orvel-key-XXXXXX.wav").string();
    const int fd = ::mkstemps(name.data(), 4);
    if (fd < 0) return;
    ::close(fd);
    path_ = name;
  }
  TempWav(const TempWav&) = delete;
  TempWav& operator=(const TempWav&) = delete;
  ~TempWav() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

std::string_view trimmed(std::string_view s) {
  constexpr std::string_view space = " \t\r\n";
  const size_t first = s.find_first_not_of(space);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(space) - first + 1);
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
  const TempWav wav;
  if (wav.path().empty()) return std::nullopt;
  const size_t maxSamples = size_t(kMaxSeconds * kRate);
  if (!writeWav(wav.path(), mono44100.first(std::min(mono44100.size(), maxSamples)), kRate,
                WavSample::float32))
    return std::nullopt;
  const auto run = runProcess({helper.string(), wav.path().string()}, kTimeoutSeconds);
  if (!run || run->exitStatus != 0) return std::nullopt;
  const std::string_view answer = trimmed(run->out);
  if (answer.empty()) return std::nullopt;
  // Read back through the key table, so whatever spelling the helper uses,
  // the catalogue gets its own name for the key, and never stray text.
  return KeyColor::standardName(answer);
}

}  // namespace orvel::audio
