// A track as the library lists it: exactly the fields a table column shows,
// filled by the launch query in this order. Derived texts and keys are
// computed, never stored.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace orvel {

struct TrackRow {
  struct Extras {
    std::string albumArtist;
    int64_t compilation = 0;
    std::string composer;
    std::optional<int64_t> trackNumber;
    std::optional<int64_t> discNumber;
    std::optional<int64_t> sampleRate;
    std::optional<int64_t> albumRating;
    std::optional<int64_t> dateModified;
    std::optional<int64_t> lastPlayed;
    std::optional<int64_t> lastSkipped;
    std::optional<int64_t> skips;
    std::optional<int64_t> releaseDate;
    std::string work;
    std::string equalizer;
    std::string seratoColor;  // tracks.serato_label
    std::string musicPID;     // empty when the track is not in Apple Music
    std::string sortArtist;
    std::string sortAlbum;
    std::string sortAlbumArtist;
    int64_t hasVideo = -1;  // -1: not determined by looking inside the file
  };

  int64_t id = 0;
  std::string title;  // the file name stands in for a missing title
  std::string artist;
  std::string album;
  std::string genre;
  std::optional<double> bpm;
  std::string key;
  std::optional<int64_t> durationMs;
  std::string path;
  bool missing = false;
  int64_t cueCount = 0;  // cues of kind "cue"; loops are not counted
  int64_t sizeBytes = 0;
  bool isProduction = false;
  std::string year;
  std::string comment;
  std::string grouping;
  std::string label;
  std::optional<int64_t> dateAdded;
  std::optional<int64_t> dateCreated;
  std::optional<int64_t> bitrateKbps;
  std::optional<int64_t> playCount;
  std::optional<int64_t> rating;  // 0…100, 20 per star
  int64_t flags = -1;             // -1: never classified
  Extras extras;

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
};

}  // namespace orvel
