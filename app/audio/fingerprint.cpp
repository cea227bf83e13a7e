#include "app/audio/fingerprint.h"

#include <chromaprint.h>

#include <algorithm>
#include <memory>

#include "app/audio/decoder.h"

namespace orvel::audio {
namespace {

constexpr int kChromaprintRate = 11025;

struct ContextFreer {
  void operator()(ChromaprintContext* c) const { chromaprint_free(c); }
};
struct Dealloc {
  void operator()(uint32_t* p) const { chromaprint_dealloc(p); }
};

}  // namespace

std::optional<std::vector<uint8_t>> rawFingerprint(std::span<const float> mono, int rate) {
  if (rate <= 0 || mono.empty()) return std::nullopt;
  std::unique_ptr<ChromaprintContext, ContextFreer> ctx(
      chromaprint_new(CHROMAPRINT_ALGORITHM_DEFAULT));
  // Chromaprint works at 11,025 Hz and would resample on its own, at several
  // times the cost of FFmpeg's resampler; giving it that rate skips its own.
  const auto head = mono.first(std::min(mono.size(), size_t(kFingerprintSeconds * rate)));
  const std::vector<float> at11k = resample(head, rate, kChromaprintRate);
  if (at11k.empty() || !chromaprint_start(ctx.get(), kChromaprintRate, 1)) return std::nullopt;
  const std::span<const float> input(at11k);
  std::vector<int16_t> block;
  constexpr size_t kBlock = 65536;
  for (size_t at = 0; at < input.size(); at += kBlock) {
    const size_t n = std::min(kBlock, input.size() - at);
    toInt16(input.subspan(at, n), block);
    if (!chromaprint_feed(ctx.get(), block.data(), int(n))) return std::nullopt;
  }
  if (!chromaprint_finish(ctx.get())) return std::nullopt;
  uint32_t* raw = nullptr;
  int size = 0;
  if (!chromaprint_get_raw_fingerprint(ctx.get(), &raw, &size)) return std::nullopt;
  std::unique_ptr<uint32_t, Dealloc> owned(raw);
  if (size <= 0) return std::nullopt;
  std::vector<uint8_t> bytes(size_t(size) * 4);
  for (size_t i = 0; i < size_t(size); ++i)
    for (int b = 0; b < 4; ++b) bytes[i * 4 + size_t(b)] = uint8_t(raw[i] >> (8 * b));
  return bytes;
}

}  // namespace orvel::audio
