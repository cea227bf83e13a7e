#include "app/audio/defect_repair.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numbers>
#include <optional>

#include "app/audio/audio_file_writer.h"
#include "app/audio/subprocess.h"
#include "app/audio/temp_file.h"
#include "core/store/log.h"
#include "core/text/split.h"

namespace orvel::audio {
namespace {

using Defect = DefectScan::Defect;
constexpr double kPi = std::numbers::pi;

// Order 32 follows a few partials of a chord; higher orders overfit the
// short stretch of audio a click leaves on either side.
constexpr size_t kMaxOrder = 32;
// About 23 ms and 46 ms at 44.1 kHz: a couple of periods of a bass note, and
// short enough that the music does not change under the model.
constexpr size_t kClickContext = 1024;
constexpr size_t kDropoutContext = 2048;
// A prediction that leaves four times the context's peak is ringing up, not
// following the music.
constexpr double kDivergence = 4.0;
// Beyond this the samples around a finding are searched for its extent.
constexpr int kClickLead = 8;
// Zero samples next to a dropout that the finding's rounding may have missed.
constexpr size_t kDropoutSlack = 8;
// An hour-long mix encodes in a few minutes; a stuck encoder must not hold a
// worker forever.
constexpr double kEncodeTimeoutSeconds = 900;

size_t frameOf(double seconds, int rate, size_t frames) {
  const double at = std::round(seconds * rate);
  if (!(at > 0)) return 0;
  return std::min(frames, static_cast<size_t>(at));
}

// Prediction-error filter by Burg's method: e[n] = Σ a[k]·x[n−k], a[0] = 1.
// Burg keeps every reflection coefficient below one in magnitude, so the
// filter is stable even when fitted on a few hundred samples.
std::vector<double> burg(std::span<const double> x, size_t order) {
  const size_t n = x.size();
  std::vector<double> a(order + 1, 0.0);
  a[0] = 1;
  std::vector<double> f(x.begin(), x.end());
  std::vector<double> b(x.begin(), x.end());
  double den = 0;
  for (double v : x) den += 2 * v * v;
  den -= f[0] * f[0] + b[n - 1] * b[n - 1];
  for (size_t k = 0; k < order && k + 2 < n; ++k) {
    if (!(den > 0)) break;
    double num = 0;
    for (size_t i = 0; i + k + 1 < n; ++i) num += f[i + k + 1] * b[i];
    const double mu = -2 * num / den;
    for (size_t i = 0; i <= (k + 1) / 2; ++i) {
      const double lo = a[i] + mu * a[k + 1 - i];
      const double hi = a[k + 1 - i] + mu * a[i];
      a[i] = lo;
      a[k + 1 - i] = hi;
    }
    for (size_t i = 0; i + k + 1 < n; ++i) {
      const double fi = f[i + k + 1] + mu * b[i];
      const double bi = b[i] + mu * f[i + k + 1];
      f[i + k + 1] = fi;
      b[i] = bi;
    }
    den = (1 - mu * mu) * den - f[k + 1] * f[k + 1] - b[n - k - 2] * b[n - k - 2];
  }
  return a;
}

// `count` samples continuing `context` (oldest first) by its own model;
// nullopt when there is too little context to fit one or the prediction runs
// away.
std::optional<std::vector<double>> extrapolate(std::span<const double> context, size_t count) {
  const size_t order = std::min(kMaxOrder, context.size() / 4);
  if (order < 2) return std::nullopt;
  double peak = 0;
  for (double v : context) peak = std::max(peak, std::abs(v));
  if (peak == 0) return std::vector<double>(count, 0.0);
  const std::vector<double> a = burg(context, order);
  std::vector<double> run(context.end() - static_cast<std::ptrdiff_t>(order), context.end());
  run.reserve(order + count);
  for (size_t step = 0; step < count; ++step) {
    double y = 0;
    for (size_t k = 1; k <= order; ++k) y -= a[k] * run[run.size() - k];
    if (!std::isfinite(y) || std::abs(y) > kDivergence * peak) return std::nullopt;
    run.push_back(y);
  }
  return std::vector<double>(run.begin() + static_cast<std::ptrdiff_t>(order), run.end());
}

// The audio on both sides of a gap in one channel, and what each side's
// model predicts into it.
struct Neighbours {
  std::optional<std::vector<double>> forward;   // from the left, gap order
  std::optional<std::vector<double>> backward;  // from the right, gap order
  double lo = 0, hi = 0;                        // the range of the audio around
};

Neighbours predictInto(const std::vector<float>& ch, DefectRepair::Gap gap, size_t context,
                       size_t count, size_t rangeSpan) {
  Neighbours out;
  const size_t n = ch.size();
  const size_t from = gap.begin - std::min(gap.begin, context);
  const size_t to = std::min(n, gap.end + context);
  std::vector<double> before(ch.begin() + static_cast<std::ptrdiff_t>(from),
                             ch.begin() + static_cast<std::ptrdiff_t>(gap.begin));
  // The right side reversed, nearest sample last, so the same forward
  // predictor runs backward in time.
  std::vector<double> after(ch.rbegin() + static_cast<std::ptrdiff_t>(n - to),
                            ch.rbegin() + static_cast<std::ptrdiff_t>(n - gap.end));
  out.forward = extrapolate(before, count);
  out.backward = extrapolate(after, count);
  if (out.backward) std::reverse(out.backward->begin(), out.backward->end());

  const size_t rangeFrom = gap.begin - std::min(gap.begin, rangeSpan);
  const size_t rangeTo = std::min(n, gap.end + rangeSpan);
  bool any = false;
  const auto widen = [&](size_t a, size_t b) {
    for (size_t i = a; i < b; ++i) {
      const double v = ch[i];
      out.lo = any ? std::min(out.lo, v) : v;
      out.hi = any ? std::max(out.hi, v) : v;
      any = true;
    }
  };
  widen(rangeFrom, gap.begin);
  widen(gap.end, rangeTo);
  return out;
}

// A straight line between the samples either side: what is left when neither
// side gives a model.
double linearAt(const std::vector<float>& ch, DefectRepair::Gap gap, size_t j) {
  const size_t n = ch.size();
  const double left = gap.begin > 0 ? ch[gap.begin - 1] : (gap.end < n ? ch[gap.end] : 0.0);
  const double right = gap.end < n ? double(ch[gap.end]) : left;
  const double t = double(j + 1) / double(gap.end - gap.begin + 1);
  return left + (right - left) * t;
}

void mendClick(std::vector<float>& ch, DefectRepair::Gap gap) {
  const size_t len = gap.end - gap.begin;
  const Neighbours nb = predictInto(ch, gap, kClickContext, len, kClickContext);
  for (size_t j = 0; j < len; ++j) {
    double v = 0;
    if (nb.forward && nb.backward) {
      // Each side's prediction is best near its own edge: a raised cosine
      // hands over from one to the other.
      const double w = 0.5 * (1 + std::cos(kPi * double(j + 1) / double(len + 1)));
      v = w * (*nb.forward)[j] + (1 - w) * (*nb.backward)[j];
    } else if (nb.forward) {
      v = (*nb.forward)[j];
    } else if (nb.backward) {
      v = (*nb.backward)[j];
    } else {
      v = linearAt(ch, gap, j);
    }
    ch[gap.begin + j] = static_cast<float>(std::clamp(v, nb.lo, nb.hi));
  }
}

void mendDropout(std::vector<float>& ch, DefectRepair::Gap gap, int rate) {
  const size_t n = ch.size();
  const size_t len = gap.end - gap.begin;
  // A model follows the music for a few milliseconds and then fades, which
  // would leave a quieter hole in a long gap: the middle is the neighbouring
  // audio mirrored into the gap from both sides, and the models only join it
  // to the edges.
  const size_t edge = std::max<size_t>(1, std::min(len / 2, static_cast<size_t>(rate) / 200));
  const Neighbours nb = predictInto(ch, gap, kDropoutContext, edge, std::max(len, kDropoutContext));
  const bool hasLeft = gap.begin > 0;
  const bool hasRight = gap.end < n;
  if (!hasLeft && !hasRight) return;

  for (size_t j = 0; j < len; ++j) {
    const double t = (double(j) + 0.5) / double(len);
    const double leftWeight = !hasRight ? 1.0 : !hasLeft ? 0.0 : std::pow(std::cos(kPi / 2 * t), 2);
    const size_t leftAt = j < gap.begin ? gap.begin - 1 - j : 0;
    const size_t rightAt = std::min(n - 1, gap.end + (len - 1 - j));
    double v = (hasLeft ? leftWeight * ch[leftAt] : 0.0) +
               (hasRight ? (1 - leftWeight) * ch[rightAt] : 0.0);
    if (j < edge && nb.forward) {
      const double a = 0.5 * (1 + std::cos(kPi * (double(j) + 0.5) / double(edge)));
      v = a * (*nb.forward)[j] + (1 - a) * v;
    }
    if (j + edge >= len && nb.backward) {
      const size_t k = j + edge - len;
      const double b = 0.5 * (1 - std::cos(kPi * (double(k) + 0.5) / double(edge)));
      v = (1 - b) * v + b * (*nb.backward)[k];
    }
    ch[gap.begin + j] = static_cast<float>(std::clamp(v, nb.lo, nb.hi));
  }
}

// The channels' mean, as the scan heard it.
double mixAt(const MultiChannelAudio& audio, size_t i) {
  double sum = 0;
  for (const auto& ch : audio.channels) sum += ch[i];
  return sum / double(audio.channels.size());
}

double mixJump(const MultiChannelAudio& audio, size_t j) {
  if (j < 2) return 0;
  return std::abs(mixAt(audio, j) - 2 * mixAt(audio, j - 1) + mixAt(audio, j - 2));
}

DefectRepair::Gap clickGap(const MultiChannelAudio& audio, size_t at) {
  const size_t n = audio.frames();
  const auto r = static_cast<size_t>(std::max(audio.rate, 1));
  const size_t searchFrom = at - std::min<size_t>(at, kClickLead);
  const size_t searchTo = std::min(n, at + std::max<size_t>(r / 500, kClickLead));
  // The level of the music around, outside the search: a click's samples
  // jump far above it.
  const size_t around = std::max<size_t>(r / 100, 64);
  double level = 0;
  size_t counted = 0;
  for (size_t j = searchFrom - std::min(searchFrom, around); j < searchFrom; ++j, ++counted)
    level += mixJump(audio, j);
  for (size_t j = searchTo; j < std::min(n, searchTo + around); ++j, ++counted)
    level += mixJump(audio, j);
  level = counted > 0 ? level / double(counted) : 0;
  double peak = 0;
  for (size_t j = searchFrom; j < searchTo; ++j) peak = std::max(peak, mixJump(audio, j));

  // A sample thrown off by h shows in the second difference at its own
  // position and the two after it, so the damage lies between the first big
  // jump and two before the last; one sample of margin either side.
  const double threshold = std::max(8 * level, peak / 16);
  std::optional<size_t> first, last;
  if (peak > 8 * level)
    for (size_t j = searchFrom; j < searchTo; ++j)
      if (mixJump(audio, j) > threshold) {
        if (!first) first = j;
        last = j;
      }
  if (!first)
    return {at - std::min<size_t>(at, 3), std::min(n, at + std::max<size_t>(r / 1000, 1))};
  return {*first - std::min<size_t>(*first, 1), std::min(n, std::max(*last, *first + 1))};
}

DefectRepair::Gap dropoutGap(const MultiChannelAudio& audio, const Defect& d) {
  const size_t n = audio.frames();
  DefectRepair::Gap gap;
  gap.begin = frameOf(d.atSeconds, audio.rate, n);
  gap.end = std::min(n, gap.begin + frameOf(d.severity / 1000, audio.rate, n));
  const auto silentEverywhere = [&](size_t i) {
    return std::all_of(audio.channels.begin(), audio.channels.end(),
                       [&](const std::vector<float>& ch) { return ch[i] == 0.0f; });
  };
  for (size_t k = 0; k < kDropoutSlack && gap.begin > 0 && silentEverywhere(gap.begin - 1); ++k)
    --gap.begin;
  for (size_t k = 0; k < kDropoutSlack && gap.end < n && silentEverywhere(gap.end); ++k) ++gap.end;
  return gap;
}

}  // namespace

DefectRepair::Gap DefectRepair::gapOf(const MultiChannelAudio& audio, const Defect& defect) {
  if (audio.frames() == 0 || audio.rate <= 0) return {};
  if (defect.kind == Defect::Kind::dropout) return dropoutGap(audio, defect);
  return clickGap(audio, frameOf(defect.atSeconds, audio.rate, audio.frames() - 1));
}

void DefectRepair::mend(MultiChannelAudio& audio, std::span<const Defect> defects) {
  if (audio.frames() == 0 || audio.rate <= 0) return;
  // In time order, so each gap's left side is already mended audio.
  std::vector<Defect> ordered(defects.begin(), defects.end());
  std::stable_sort(ordered.begin(), ordered.end(),
                   [](const Defect& a, const Defect& b) { return a.atSeconds < b.atSeconds; });
  // A dropout's edges step to and from silence, which the scan also reports
  // as clicks; bridging the dropout mends those, and a click model fitted
  // across the silence would only disturb the bridge.
  std::vector<Gap> dropouts;
  for (const Defect& d : ordered)
    if (d.kind == Defect::Kind::dropout) dropouts.push_back(gapOf(audio, d));
  const size_t edge = static_cast<size_t>(audio.rate) / 500 + kClickLead;
  const auto atDropoutEdge = [&](size_t frame) {
    return std::any_of(dropouts.begin(), dropouts.end(), [&](const Gap& g) {
      return frame + edge >= g.begin && frame <= g.end + edge;
    });
  };

  for (const Defect& d : ordered) {
    const Gap gap = gapOf(audio, d);
    if (gap.end <= gap.begin) continue;
    if (d.kind == Defect::Kind::click &&
        atDropoutEdge(frameOf(d.atSeconds, audio.rate, audio.frames())))
      continue;
    for (auto& ch : audio.channels) {
      if (d.kind == Defect::Kind::click)
        mendClick(ch, gap);
      else
        mendDropout(ch, gap, audio.rate);
    }
  }
}

std::filesystem::path DefectRepair::fixName(const std::filesystem::path& source) {
  const auto folder = source.parent_path();
  const std::string stem = source.stem().string();
  const std::string ext = source.extension().string();
  for (int n = 1;; ++n) {
    const std::string tag = n == 1 ? " (fix)" : " (fix " + std::to_string(n) + ")";
    auto candidate = folder / (stem + tag + ext);
    // symlink_status: a dangling link still takes the name.
    std::error_code ec;
    if (!std::filesystem::exists(std::filesystem::symlink_status(candidate, ec))) return candidate;
  }
}

RepairResult DefectRepair::repair(const std::filesystem::path& path,
                                  std::span<const Defect> defects, const RepairTools& tools) {
  RepairResult result;
  auto audio = Decoder::decodeChannels(path);
  if (!audio || audio->frames() == 0) {
    result.message = "Could not read the audio";
    return result;
  }
  if (defects.empty()) {
    result.message = "Nothing damaged to repair";
    return result;
  }
  mend(*audio, defects);

  // 24-bit AIFF carries the mended audio to the encoder without adding noise
  // of its own to a 16-bit source, and keeps a 24-bit one whole.
  const TempFile mended("repair", ".aiff");
  if (mended.path().empty() || !writeAiff(mended.path(), audio->channels, audio->rate)) {
    result.message = "Could not write the repaired audio";
    note(result.message + " for " + path.string());
    return result;
  }
  const std::filesystem::path output = fixName(path);
  std::vector<std::string> argv = {tools.python.string()};
  argv.insert(argv.end(), tools.leadingArgs.begin(), tools.leadingArgs.end());
  argv.insert(argv.end(),
              {tools.script.string(), mended.path().string(), path.string(), output.string()});
  const auto run = runProcess(argv, kEncodeTimeoutSeconds);
  if (!run || run->exitStatus != 0) {
    result.message = "fix_encode failed for " + path.string();
    note(result.message);
    // The script's own reason goes to the log only; the user gets one line.
    if (run && !trim(run->err).empty()) appendLogLine(std::string(trim(run->err)));
    return result;
  }
  result.ok = true;
  result.output = output;
  result.lossless = trim(run->out) == "lossless";
  result.message = "Saved “" + output.filename().string() + "”";
  if (result.lossless) result.message += " — kept lossless";
  return result;
}

}  // namespace orvel::audio
