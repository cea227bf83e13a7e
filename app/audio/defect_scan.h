// Finds the damage a DJ hears in a file: clicks (a few samples thrown off the
// waveform) and dropouts (a short run of digital silence inside the music).
// The thresholds are fixed so that a rescan of the same audio always reports
// the same findings. Analysis never throws; unreadable audio gives nullopt.
// The analysis functions are safe to call from several threads at once; the
// ones that take an OrvelDB (stored, scanTrack, record) use it on the calling
// thread, which must be the thread that owns it (a worker opens its own).
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <vector>

#include "app/audio/decoder.h"
#include "core/store/status.h"

namespace orvel {
class OrvelDB;
struct DefectRow;
}  // namespace orvel

namespace orvel::audio {

class DefectScan {
 public:
  struct Defect {
    enum class Kind { click, dropout };
    Kind kind{};
    double atSeconds{};
    double severity{};  // click: its jump over the local level; dropout: its length in ms

    // {"kind": "click"|"dropout", "atSeconds": …, "severity": …}, in that order.
    nlohmann::ordered_json toJson() const;
  };

  DefectScan() = delete;

  static const char* kindName(Defect::Kind kind);
  // A stored finding back as the repair takes it; nullopt for a kind this
  // version does not know.
  static std::optional<Defect> fromRow(const DefectRow& row);
  // The findings the catalogue holds for a track, in time order.
  static std::vector<Defect> stored(const OrvelDB& db, int64_t trackId);

  // Mono float at the file's own rate, the rate the thresholds are set for.
  static std::optional<MonoAudio> decodeMono(const std::filesystem::path& path);

  // Clicks and dropouts in time order; the steps at a dropout's two edges
  // count as part of it, not as clicks. One pass, linear in the length, with
  // 100 ms of working memory, so it can run on every file of a library.
  static std::vector<Defect> analyse(std::span<const float> samples, int rate);

  // Clicks that fall on a steady grid are a rim shot or a hi-hat, not damage:
  // when most click intervals are multiples of the shortest one, every click
  // is dropped and only the dropouts stay. Returns the findings in time order.
  static std::vector<Defect> dropRhythmic(std::vector<Defect> findings);

  // Decodes, analyses, drops rhythmic clicks and stores the result in place of
  // the track's earlier findings. Fails when the audio is unreadable or the
  // findings could not be stored (saying which); an unreadable file leaves
  // no scan behind.
  static Result<std::vector<Defect>> scanTrack(OrvelDB& db, int64_t trackId,
                                               const std::filesystem::path& path);

  // Stores findings already made (the one-pass analysis decodes once for
  // every analyser and hands its findings here).
  static Status record(OrvelDB& db, int64_t trackId, std::span<const Defect> findings);
};

}  // namespace orvel::audio
