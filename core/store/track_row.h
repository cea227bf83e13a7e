// A track as the library lists it: exactly the fields a table column shows,
// filled by the launch query. A whole library is held as rows of this type
// (200,000 of them for a big one), so a row is kept small: its texts share
// one buffer and are read through accessors, numbers that fit use 32 bits.
// Derived texts and keys are computed, never stored.
//
// A TrackSnapshot is the loaded library: immutable once built, so any number
// of threads may read one shared snapshot without copying or locking.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvel {

class TrackRow {
 public:
  // The texts of a row, all in one buffer.
  enum class Text : uint8_t {
    title,  // the file name stands in for a missing title
    artist,
    album,
    genre,
    key,
    path,
    year,
    comment,
    grouping,
    label,
    albumArtist,
    composer,
    work,
    equalizer,
    seratoColor,  // tracks.serato_label
    musicPID,     // empty when the track is not in Apple Music
    sortArtist,
    sortAlbum,
    sortAlbumArtist,
  };
  static constexpr size_t kTexts = static_cast<size_t>(Text::sortAlbumArtist) + 1;

  int64_t id = 0;
  std::optional<double> bpm;
  std::optional<int64_t> durationMs;
  int64_t sizeBytes = 0;
  std::optional<int64_t> dateAdded;
  std::optional<int64_t> dateCreated;
  std::optional<int64_t> dateModified;
  std::optional<int64_t> lastPlayed;
  std::optional<int64_t> lastSkipped;
  std::optional<int64_t> releaseDate;
  std::optional<int32_t> bitrateKbps;
  std::optional<int32_t> playCount;
  std::optional<int32_t> rating;  // 0…100, 20 per star
  std::optional<int32_t> trackNumber;
  std::optional<int32_t> discNumber;
  std::optional<int32_t> sampleRate;
  std::optional<int32_t> albumRating;
  std::optional<int32_t> skips;
  int32_t cueCount = 0;  // cues of kind "cue"; loops are not counted
  int32_t flags = -1;    // -1: never classified
  int8_t hasVideo = -1;  // -1: not determined by looking inside the file
  bool compilation = false;
  bool missing = false;
  bool isProduction = false;
  bool loved = false;
  bool disliked = false;
  bool master = false;

  TrackRow() = default;
  TrackRow(const TrackRow& other);
  TrackRow& operator=(const TrackRow& other);
  TrackRow(TrackRow&&) noexcept = default;
  TrackRow& operator=(TrackRow&&) noexcept = default;
  ~TrackRow() = default;

  std::string_view text(Text field) const;
  // Replaces one text; rebuilds the buffer, so it is for single edits, not loading.
  void setText(Text field, std::string_view value);
  // All texts at once, in Text order: what loading does.
  void setTexts(const std::array<std::string_view, kTexts>& values);

  std::string_view title() const { return text(Text::title); }
  std::string_view artist() const { return text(Text::artist); }
  std::string_view album() const { return text(Text::album); }
  std::string_view genre() const { return text(Text::genre); }
  std::string_view key() const { return text(Text::key); }
  std::string_view path() const { return text(Text::path); }
  std::string_view year() const { return text(Text::year); }
  std::string_view comment() const { return text(Text::comment); }
  std::string_view grouping() const { return text(Text::grouping); }
  std::string_view label() const { return text(Text::label); }
  std::string_view albumArtist() const { return text(Text::albumArtist); }
  std::string_view composer() const { return text(Text::composer); }
  std::string_view work() const { return text(Text::work); }
  std::string_view equalizer() const { return text(Text::equalizer); }
  std::string_view seratoColor() const { return text(Text::seratoColor); }
  std::string_view musicPID() const { return text(Text::musicPID); }
  std::string_view sortArtist() const { return text(Text::sortArtist); }
  std::string_view sortAlbum() const { return text(Text::sortAlbum); }
  std::string_view sortAlbumArtist() const { return text(Text::sortAlbumArtist); }

  // Derived texts for lists and the command line.
  std::string fileName() const;       // last path component
  std::string ext() const;            // lower-case extension without the dot
  std::string durationText() const;   // "m:ss" or "h:mm:ss"; "" when unknown
  std::string bpmText() const;        // "124" or "123.5"; "" when unknown
  std::string sizeText() const;       // "8.4 MB"
  std::string bitrateText() const;    // "320 kbps"
  std::string ratingText() const;     // "★★★☆☆"; "" when unrated
  std::string dateAddedText() const;  // local "yyyy-MM-dd"
  int64_t stars() const { return rating ? (*rating + 10) / 20 : 0; }

 private:
  // ends_[i] is where text i ends in buffer_; text i starts where i-1 ends.
  // A bare array rather than a std::string: no small-string slot to pay for
  // in every one of 200,000 rows.
  std::unique_ptr<char[]> buffer_;
  std::array<uint32_t, kTexts> ends_{};
};

// The loaded library in launch order (newest first). Built once by the
// store, then only read; share it as std::shared_ptr<const TrackSnapshot>.
struct TrackSnapshot {
  std::vector<TrackRow> rows;
  // The store's change generation the rows were read at: a notice with a
  // higher generation means the snapshot is out of date.
  uint64_t generation = 0;
};

}  // namespace orvel
