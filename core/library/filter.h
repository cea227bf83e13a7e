// One refilter of the library: from every track to the rows a view shows,
// in a fixed order of steps — the source (the whole library, a category, a
// folder, or a list of tracks such as a playlist), the content filter, the
// scope, the search, the column browser — then sorted, with statistics of
// what is shown. Recomputation is always complete; nothing is patched into
// an earlier result.
//
// The search is the trimmed, lower-cased text as one substring of the title,
// artist, album or genre: it is not split into words, carries no operators
// and does not fold diacritics.
//
// Disliked tracks are hidden from every source but the "disliked" category.
//
// Thread contract: runFilter reads an immutable index and may run on any
// thread, several at once.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/library/classify.h"
#include "core/library/library_index.h"
#include "core/library/sort_field.h"

namespace orvel::library {

struct Source {
  enum class Kind : uint8_t { library, category, folder, tracks };
  Kind kind = Kind::library;
  Category category = Category::allTracks;
  std::string folder;  // tracks whose file lies inside it
  // A playlist, crate, smart playlist or the assistant's answer, in order.
  std::shared_ptr<const std::vector<int64_t>> ids;

  static Source library() { return {}; }
  static Source of(Category c) { return {Kind::category, c, {}, {}}; }
  static Source inFolder(std::string folder) { return {Kind::folder, {}, std::move(folder), {}}; }
  static Source tracks(std::vector<int64_t> ids) {
    return {Kind::tracks, {}, {}, std::make_shared<const std::vector<int64_t>>(std::move(ids))};
  }
};

// One condition on one field. Keys, tried in this order: artist (the track's
// or the album artist, equal ignoring case), title, album, genre (equal
// ignoring case), year (equal), bpm ("124": rounds to it; "120-130": within),
// key (the same key in any notation: "8A" is "Am"), and the yes/no keys isrc,
// lossless, artwork, missing (a value of "", "yes", "1", "true" means yes;
// "no", "0", "false" means no). An unknown key narrows nothing.
struct Scope {
  std::string key, value;
};
inline constexpr std::array<std::string_view, 11> kScopeKeys{
    "artist", "title", "album", "year", "genre", "bpm", "key", "isrc", "lossless", "artwork",
    "missing"};

struct BrowserOptions {
  bool shown = false;
  bool useAlbumArtists = false;    // album artists in the artist column
  bool groupCompilations = false;  // compilation albums as one entry
};

// The browser's selection, by the texts its columns show.
struct BrowserSelection {
  std::vector<std::string> genres, artists, albums;
  bool empty() const { return genres.empty() && artists.empty() && albums.empty(); }
};
inline constexpr std::string_view kCompilations = "Compilations";

struct FilterQuery {
  Source source;
  Content content = Content::all;
  std::optional<Scope> scope;
  std::string search;  // as typed
  BrowserOptions browser;
  BrowserSelection selection;
  std::vector<SortColumn> sort;  // most significant first; empty: the source's order
  int64_t now = 0;               // Unix seconds, for "recently added"
};

struct ViewStats {
  int64_t tracks = 0;
  int64_t totalMs = 0;
  int64_t totalBytes = 0;
  int64_t artists = 0;  // distinct browser artists
  int64_t albums = 0;   // distinct albums
  int64_t withCues = 0;
  double avgBPM = 0;             // of the tempi strictly between 40 and 250
  int64_t libraryTotal = 0;      // tracks in the library, disliked ones included
  bool wholeLibrary = false;     // nothing narrows the list but hiding disliked tracks
  int64_t hiddenDisliked = 0;    // left out of this list because disliked
  int64_t sharedWithMusic = 0;   // shown rows that are also in Apple Music
};

// The status line: "1,204 tracks · 3 d 4 h · 9.8 GB · 310 artists · …",
// with " disliked hidden" and " shared with Music" after their counts.
std::string statusText(const ViewStats& stats);

struct BrowserColumns {
  std::vector<std::string> genres, artists, albums;
};

struct FilterResult {
  std::vector<uint32_t> rows;  // indices into the index, in display order
  std::optional<BrowserColumns> browser;  // when the browser is shown
  ViewStats stats;
  struct Timings {
    double total = 0, browse = 0, sort = 0, stats = 0;  // milliseconds
  } ms;
  bool cancelled = false;
};

// `cancel` is checked between steps; a cancelled run returns at once.
FilterResult runFilter(const LibraryIndex& index, const FilterQuery& query,
                       const std::atomic<bool>* cancel = nullptr);

// "refilter 12ms [browse 3 · sort 4 · stats 1] -> 2041 rows"
std::string logLine(const FilterResult& result);

// The number of tracks in each category (disliked ones only in "disliked").
std::array<int64_t, kCategoryCount> categoryCounts(const LibraryIndex& index, int64_t now);

// The four tempi between the five tempo bands: the library's quintiles of
// the tempi strictly between 30 and 260 BPM, or 82, 92, 100, 116 when there
// are 500 such tempi or fewer.
std::array<double, 4> tempoCuts(const LibraryIndex& index);

// The three columns over these rows: each value trimmed, spellings that
// differ only in case one entry (the first met), ordered by sort key;
// "Compilations" first where compilations are grouped.
BrowserColumns browserColumns(const LibraryIndex& index, std::span<const uint32_t> rows,
                              const BrowserOptions& options);

// The browser artist id of a row: its artist, or with `useAlbumArtists` its
// album artist where it has one, or with `groupCompilations` and a
// compilation kCompilationsId.
inline constexpr uint32_t kCompilationsId = 0xFFFFFFFF;
uint32_t browserArtist(const LibraryIndex& index, uint32_t row, const BrowserOptions& options);

// What a search looks for: the typed text trimmed and lower-cased (and
// without the field separator, which could only match across two fields).
std::string searchNeedle(std::string_view typed);
// Whether a row's search text holds the needle; an empty needle finds all.
inline bool searchFinds(std::string_view searchText, std::string_view needle) {
  return needle.empty() || searchText.find(needle) != std::string_view::npos;
}

// The ids of the rows whose search text holds `text` (a search in the whole
// library, disliked tracks included).
std::vector<int64_t> idsMatching(const LibraryIndex& index, std::string_view text);

}  // namespace orvel::library
