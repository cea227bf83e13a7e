#include "app/audio/waveform.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "app/audio/decoder.h"

namespace orvel::audio {
namespace {

constexpr size_t kMinSamples = 801;

// RMS on a 30 dB scale: about -29 dBFS and below is 0, about +1 dBFS is 1.
double levelOf(double rms) {
  return std::clamp((20.0 * std::log10(std::max(rms, 0.00001)) + 29.0) / 30.0, 0.0, 1.0);
}

uint8_t levelByte(double rms) {
  return uint8_t(levelOf(rms) * 255.0);
}

uint8_t bandByte(double band, double total) {
  return uint8_t(std::pow(band / (total + 0.000001), 0.6) * 255.0);
}

// s ÷ 32767 for every 16-bit value, computed once: the same floats the
// division gives, at the cost of a lookup in the inner loop.
const std::array<float, 65536>& scaledTable() {
  static const auto table = [] {
    std::array<float, 65536> t{};
    for (int s = -32768; s <= 32767; ++s) t[size_t(s + 32768)] = float(s) / 32767.0f;
    return t;
  }();
  return table;
}

// The blob from N samples, each read as a 16-bit value through `at`.
template <typename SampleAt>
std::optional<std::vector<uint8_t>> blobOf(size_t n, SampleAt at) {
  if (n < kMinSamples) return std::nullopt;
  const size_t perColumn = n / WaveformLoader::kColumns;
  std::vector<uint8_t> out(WaveformLoader::kBytes);
  const float* scaled = scaledTable().data() + 32768;
  float lp1 = 0, lp2 = 0;
  for (size_t c = 0; c < size_t(WaveformLoader::kColumns); ++c) {
    const size_t begin = c * perColumn;
    const size_t end = std::min(n, begin + perColumn);
    double low = 0, mid = 0, high = 0, squares = 0;
    for (size_t i = begin; i < end; ++i) {
      const float x = scaled[at(i)];
      lp1 += (x - lp1) * WaveformLoader::kLowCoefficient;
      lp2 += (x - lp2) * WaveformLoader::kMidCoefficient;
      low += std::abs(lp1);
      mid += std::abs(lp2 - lp1);
      high += std::abs(x - lp2);
      squares += double(x) * double(x);
    }
    const double count = double(std::max<size_t>(end - begin, 1));
    const double total = high + mid + low;
    uint8_t* col = out.data() + c * 4;
    col[0] = levelByte(std::sqrt(squares / count));
    col[1] = bandByte(low, total);
    col[2] = bandByte(mid, total);
    col[3] = bandByte(high, total);
  }
  return out;
}

}  // namespace

std::optional<std::vector<uint8_t>> WaveformLoader::compute(const std::filesystem::path& path) {
  auto samples = Decoder::decodeMono16(path);
  if (!samples) return std::nullopt;
  return compute(*samples);
}

std::optional<std::vector<uint8_t>> WaveformLoader::compute(std::span<const int16_t> samples) {
  return blobOf(samples.size(), [&](size_t i) { return samples[i]; });
}

std::optional<std::vector<uint8_t>> WaveformLoader::computeFromFloat(
    std::span<const float> samples) {
  return blobOf(samples.size(), [&](size_t i) { return toInt16(samples[i]); });
}

bool LoupeAudio::ensure(const std::filesystem::path& path, double centerSec) {
  if (!samples_.empty() && path == path_ && rate_ > 0) {
    const double end = startSec_ + double(samples_.size()) / rate_;
    if (centerSec >= startSec_ + kMarginSeconds && centerSec <= end - kMarginSeconds) return true;
  }
  const double start = std::max(0.0, centerSec - kLeadSeconds);
  auto audio =
      Decoder::decodeMono(path, {.rate = kRate, .startSec = start, .maxSeconds = kSpanSeconds});
  ++decodes_;
  if (!audio) return !samples_.empty() && path == path_;
  set(std::move(audio->samples), start, audio->rate, path);
  return true;
}

void LoupeAudio::set(std::vector<float> samples, double startSec, int rate,
                     std::filesystem::path path) {
  samples_ = std::move(samples);
  startSec_ = startSec;
  rate_ = rate;
  path_ = std::move(path);
}

std::vector<LoupeAudio::Column> LoupeAudio::columns(double centerMs, double spanMs,
                                                    int count) const {
  if (samples_.empty() || rate_ <= 0 || count < 1) return {};
  const double from = centerMs / 1000.0 - spanMs / 2000.0 - startSec_;
  const double width = spanMs / 1000.0 / count;
  // Here the rate is the decoded one, so the cut-offs are where they say.
  const float a1 = float(1.0 - std::exp(-2.0 * M_PI * 200.0 / rate_));
  const float a2 = float(1.0 - std::exp(-2.0 * M_PI * 2000.0 / rate_));
  float lp1 = 0, lp2 = 0;
  std::vector<Column> out(static_cast<size_t>(count));
  const auto n = int64_t(samples_.size());
  for (int c = 0; c < count; ++c) {
    const int64_t begin = std::llround((from + c * width) * rate_);
    const int64_t end = std::llround((from + (c + 1) * width) * rate_);
    double low = 0, mid = 0, high = 0, squares = 0;
    int64_t counted = 0;
    for (int64_t i = std::max<int64_t>(begin, 0); i < std::min(end, n); ++i, ++counted) {
      const float x = samples_[size_t(i)];
      lp1 += (x - lp1) * a1;
      lp2 += (x - lp2) * a2;
      low += std::abs(lp1);
      mid += std::abs(lp2 - lp1);
      high += std::abs(x - lp2);
      squares += double(x) * double(x);
    }
    const double rms = std::sqrt(squares / double(std::max<int64_t>(counted, 1)));
    const double total = low + mid + high + 0.000001;
    Column& col = out[size_t(c)];
    col.level = float(levelOf(rms));
    col.low = float(std::pow(low / total, 0.6));
    col.mid = float(std::pow(mid / total, 0.6));
    col.high = float(std::pow(high / total, 0.6));
  }
  return out;
}

}  // namespace orvel::audio
