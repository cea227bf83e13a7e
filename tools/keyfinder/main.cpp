// orvel-keyfinder FILE.wav: prints the musical key of a WAV file ("Am",
// "F#") on a line of its own. Orvel runs it as a helper for the more careful
// key analysis; it is a program of its own so that qm-dsp stays out of the
// app. Exit 0 with a key, 1 when the file cannot be read or has no key,
// 2 for bad usage.
#include <cstdio>
#include <exception>
#include <string_view>

#include "core/text/key_names.h"
#include "tools/keyfinder/qm_key.h"
#include "tools/keyfinder/wav_reader.h"

namespace {

constexpr const char* kUsage =
    "usage: orvel-keyfinder FILE.wav\n"
    "Prints the musical key of FILE.wav (16/24/32-bit PCM or 32-bit float WAV).\n";

int run(int argc, char** argv) {
  if (argc == 2 && (std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h")) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc != 2 || argv[1][0] == '\0') {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const auto wav = orvel::keyfinder::readWav(argv[1]);
  if (!wav) {
    std::fprintf(stderr, "orvel-keyfinder: cannot read %s as a WAV file\n", argv[1]);
    return 1;
  }
  const auto key = orvel::keyfinder::findKey(wav->mono, wav->rate);
  if (!key) {
    std::fprintf(stderr, "orvel-keyfinder: no key found in %s\n", argv[1]);
    return 1;
  }
  std::printf("%s\n", orvel::KeyColor::standardName(key->pitchClass, key->minor).c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    // Out of memory on a huge file is the one way here; say so and fail.
    std::fprintf(stderr, "orvel-keyfinder: %s\n", e.what());
    return 1;
  }
}
