// The WAV reader of orvel-keyfinder, which reads whatever file the app (or
// a user) hands the helper.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/fuzz_checks.h"
#include "tools/keyfinder/wav_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using orvel::fuzz::require;
  const std::span<const uint8_t> input(data, size);
  const auto audio = orvel::keyfinder::parseWav(input);
  const auto again = orvel::keyfinder::parseWav(input);
  require(audio.has_value() == again.has_value());
  if (!audio) return 0;
  require(audio->rate > 0 && audio->channels >= 1);
  require(audio->mono.size() == again->mono.size() && audio->rate == again->rate);
  // Every frame takes at least two bytes a channel, after a 44-byte header.
  require(audio->mono.size() * size_t(audio->channels) * 2 + 44 <= size);
  for (size_t i = 0; i < audio->mono.size(); ++i) {
    require(std::isfinite(audio->mono[i]));
    require(std::bit_cast<uint32_t>(audio->mono[i]) == std::bit_cast<uint32_t>(again->mono[i]));
  }
  return 0;
}
