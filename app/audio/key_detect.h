// The built-in key detector: a chroma summed over the whole stretch of audio
// and matched against the Krumhansl–Kessler key profiles. Quick enough to run
// on every import; the separate orvel-keyfinder helper is the more careful
// one (see key_finder_helper.h).
#pragma once

#include <optional>
#include <span>
#include <string>

namespace orvel::audio {

// The key of mono samples at `rate` as the catalogue writes it ("Am", "F#").
// No value for a non-positive rate, fewer than 4096 samples or silence.
// Thread-safe; never throws.
std::optional<std::string> detectKey(std::span<const float> samples, int rate);

}  // namespace orvel::audio
