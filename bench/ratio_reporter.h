// A console reporter that remembers each benchmark's time, so a benchmark
// program can print its figures as ratios to a baseline measured in the same
// run.
#pragma once

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orvel::bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& r : runs)
      if (!r.error_occurred) ms_[r.benchmark_name()] = r.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }

  // A benchmark's time per iteration in its display unit. Names carry their
  // settings ("BM_X/min_time:2.000"), so the stem is matched; a repeated
  // benchmark is taken by its median.
  std::optional<double> timeOf(const std::string& stem) const {
    std::optional<double> any;
    for (const auto& [name, t] : ms_) {
      if (name != stem && !name.starts_with(stem + "/")) continue;
      if (name.ends_with("_median")) return t;
      if (!any && !name.ends_with("_mean") && !name.ends_with("_stddev") && !name.ends_with("_cv"))
        any = t;
    }
    return any;
  }

  // "what   12.00 ms vs 6.00 ms = 2.00x  (budget 2.0x: ok)"; budget 0: none.
  void printRatio(const char* what, const char* op, const char* base, double budget,
                  const char* unit = "ms") const {
    const auto a = timeOf(op);
    const auto b = timeOf(base);
    if (!a || !b) return;
    const double r = *a / *b;
    fmt::print("{:<56} {:8.2f} {} vs {:8.2f} {} = {:.2f}x{}\n", what, *a, unit, *b, unit, r,
               budget > 0
                   ? fmt::format("  (budget {:.1f}x: {})", budget, r <= budget ? "ok" : "OVER")
                   : "");
  }

 private:
  std::map<std::string, double> ms_;
};

}  // namespace orvel::bench
