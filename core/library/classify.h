// What a track is, for the content filter, the sidebar's categories and the
// scopes: rules over the track's own record, written so a DJ can predict
// them. Each is a small word or extension test; none looks inside the file.
//
//   video          a video container (mp4, m4v, mov, mkv, webm, avi, mpg,
//                  mpeg, wmv, flv) or a file known to carry a video track
//   sound          not a video, and production material (the importer's
//                  rule: sample packs, one-shots, loops, stems, kits) or
//                  shorter than 45 seconds
//   mix            music of 15 minutes or more, or whose genre or grouping
//                  says "DJ mix", "mixtape", "mix set", "live set",
//                  "podcast" or "radio show" ("Original Mix" and
//                  "Extended Mix" in a title are versions, not mixes)
//   music          neither video, sound nor mix
//   stem           "stem"/"stems" a word of the title, grouping or genre,
//                  or a Native Instruments stem file (".stem.mp4")
//   uncompressed   WAV or AIFF (PCM), not FLAC or ALAC
//   lossless       uncompressed, FLAC or ALAC (an ".alac" file or a ".m4a"
//                  at a bit rate of 500 kbit/s or more)
//   acapella       "acapella", "a capella", "a cappella", "acappella",
//                  "accapella" in the title, comment or grouping
//   instrumental   the word "instrumental" or "(inst)" in the title, comment
//                  or grouping
//   sound effect   "sfx", "fx", "sound effect(s)", "foley" as the genre's or
//                  grouping's words, or "SFX" a folder on the path
//   remix / edit   the title says "remix", "edit", "rework", "bootleg",
//                  "mashup", "refix", "re-edit", "flip", "VIP" or "dub mix";
//                  "Radio Edit" alone is the record's own version
//   live           the title says "(live", "[live", "live at", "live from",
//                  "live in" or ends in "- live"; or the album "live at",
//                  "live in", "(live)" or "unplugged"; or the genre is "Live"
//   unreleased     "unreleased", "dubplate", "forthcoming" or "WIP" in the
//                  title, comment or grouping
//   released       not unreleased, and an ISRC, or a label and a year
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "core/store/track_row.h"

namespace orvel::library {

enum class Content : uint8_t { all, music, mixes, sounds, videos };
inline constexpr std::array<std::string_view, 5> kContentNames{"All", "Music", "Mixes", "Sounds",
                                                               "Videos"};
std::string_view contentName(Content content);
// "Music", or "music": the name as the filter menu writes it, any case.
std::optional<Content> contentNamed(std::string_view name);

enum class Category : uint8_t {
  allTracks, music, mixes, missing, damaged, duplicates, recentlyAdded, production,
  stems, uncompressed, masters, videos, acapellas, instrumentals, soundfx, remixes,
  live, unreleased, released, disliked, loved, sounds, noArtist, noAlbum, noYear,
  noKey, noBPM,
};
inline constexpr size_t kCategoryCount = static_cast<size_t>(Category::noBPM) + 1;
inline constexpr std::array<std::string_view, kCategoryCount> kCategoryKeys{
    "allTracks",  "music",       "mixes",         "missing",  "damaged",      "duplicates",
    "recentlyAdded", "production", "stems",       "uncompressed", "masters",  "videos",
    "acapellas",  "instrumentals", "soundfx",     "remixes",  "live",         "unreleased",
    "released",   "disliked",    "loved",         "sounds",   "noArtist",     "noAlbum",
    "noYear",     "noKey",       "noBPM"};
std::string_view categoryKey(Category category);
std::optional<Category> categoryNamed(std::string_view key);
// "Recently added": the last 30 days.
inline constexpr int64_t kRecentSeconds = 30 * 86400;

// What the record says about a track, independent of the rest of the library.
struct TrackFacts {
  bool video = false, sound = false, mix = false, stem = false, uncompressed = false,
       lossless = false, acapella = false, instrumental = false, soundFx = false, remix = false,
       live = false, unreleased = false, released = false;
  Content content() const;  // music, mixes, sounds or videos
};

TrackFacts factsOf(const TrackRow& row, bool hasIsrc);

// The categories a track belongs to as a bit mask (bit = Category), except
// the three that depend on more than the record: damaged and duplicates
// (sets the library keeps) and recently added (the clock). "allTracks" is set
// for every track; disliked tracks are in "disliked" only (they are hidden
// from every other view), and the caller applies that.
uint32_t categoryMask(const TrackRow& row, const TrackFacts& facts);

inline constexpr uint32_t bit(Category c) { return uint32_t{1} << static_cast<unsigned>(c); }

}  // namespace orvel::library
