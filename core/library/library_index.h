// The loaded library, prepared for filtering: each row with what every
// refilter needs and must not recompute (its search text folded, its browser
// values as ids, its categories and content kind), and sort ranks per column,
// made on first use. Immutable once built: any number of threads may read one
// index at the same time. An edit makes a new index (`patched`) that shares
// everything unchanged with the old one.
//
// Thread contract: build and patched may run on any thread; the result is
// read-only. ranks() computes a missing column once, under a lock, and may
// be called from several threads.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/library/classify.h"
#include "core/library/sort_field.h"
#include "core/store/track_row.h"

namespace orvel::library {

// What the library keeps about tracks beside their records.
struct LibrarySets {
  std::unordered_set<int64_t> duplicates;  // found to hold the same recording as another
  std::unordered_set<int64_t> damaged;     // with defects the user has not dismissed
  std::unordered_set<int64_t> withIsrc;
  std::unordered_set<int64_t> withArtwork;
};

// The distinct values of one browser column: id 0 is the empty value, the
// others in the order they were met. Values that fold to the same text
// (trimmed, lower-cased) share an id and show as the first spelling met.
class NameTable {
 public:
  uint32_t size() const { return static_cast<uint32_t>(display_.size()); }
  std::string_view display(uint32_t id) const { return display_[id]; }
  std::string_view foldedText(uint32_t id) const { return folded_[id]; }
  // The position of the value among all values by sort key (empty first).
  uint32_t order(uint32_t id) const { return order_[id]; }
  std::optional<uint32_t> find(std::string_view text) const;

  uint32_t intern(std::string_view text);  // building only
  void finish();                           // computes the order

 private:
  std::vector<std::string> display_{""}, folded_{""};
  std::vector<uint32_t> order_{0};
  // Looked up by a folded text the caller holds, without a key of its own.
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  std::unordered_map<std::string, uint32_t, Hash, std::equal_to<>> byFolded_{{"", 0}};
  std::string scratch_;  // the folded text of the value being interned
};

class LibraryIndex {
 public:
  // Bits of a row's `flags`.
  static constexpr uint8_t kLossless = 1, kDuplicate = 2, kDamaged = 4, kIsrc = 8, kArtwork = 16,
                           kHidden = 32;  // removed by an edit since the snapshot

  struct Row {
    uint32_t categories = 0;  // categoryMask, plus damaged and duplicates
    uint32_t genre = 0, artist = 0, albumArtist = 0, album = 0;  // NameTable ids
    uint32_t searchAt = 0;  // where the row's search text starts in its arena
    uint32_t searchSize = 0;
    int32_t patch = -1;  // the row's replacement in the patch list, or -1
    Content content = Content::music;
    uint8_t flags = 0;
  };

  // Without classification rows carry no categories and count as music: a
  // quicker index for a search that needs neither.
  enum class Classify { yes, no };
  static std::shared_ptr<const LibraryIndex> build(std::shared_ptr<const TrackSnapshot> snapshot,
                                                   LibrarySets sets,
                                                   Classify classify = Classify::yes);

  // The same library with these rows (matched by id) replaced and these ids
  // hidden (removed since); rows whose id is not in the library are ignored
  // (a new track needs a new snapshot).
  std::shared_ptr<const LibraryIndex> patched(std::span<const TrackRow> rows,
                                              std::span<const int64_t> hide = {}) const;
  // The same rows with other sets (after a scan or a duplicate search).
  std::shared_ptr<const LibraryIndex> withSets(LibrarySets sets) const;
  // Only the duplicates changed: the rows' other facts stand.
  std::shared_ptr<const LibraryIndex> withDuplicates(std::unordered_set<int64_t> ids) const;

  size_t size() const { return rows_->size(); }
  const TrackRow& row(uint32_t i) const {
    const Row& r = (*rows_)[i];
    return r.patch < 0 ? snapshot_->rows[i] : (*patches_)[static_cast<size_t>(r.patch)];
  }
  const Row& at(uint32_t i) const { return (*rows_)[i]; }
  std::optional<uint32_t> find(int64_t id) const;
  bool hidden(uint32_t i) const { return ((*rows_)[i].flags & kHidden) != 0; }

  // "title␟artist␟album␟genre", lower-cased: a search that finds the text
  // in it finds it in one field, since no search holds the separator.
  std::string_view searchText(uint32_t i) const {
    const Row& r = (*rows_)[i];
    const std::string& arena = r.patch < 0 ? *searchArena_ : *patchArena_;
    return {arena.data() + r.searchAt, r.searchSize};
  }
  static constexpr char kFieldSeparator = '\x1f';

  const NameTable& genres() const { return *genres_; }
  const NameTable& names() const { return *names_; }  // artists and album artists
  const NameTable& albums() const { return *albums_; }
  const LibrarySets& sets() const { return *sets_; }
  const std::shared_ptr<const TrackSnapshot>& snapshot() const { return snapshot_; }

  // Each row's rank in the order of `field` (equal values, equal ranks;
  // missing values rank 0, before everything else), and the highest rank.
  struct Ranks {
    std::vector<uint32_t> rank;
    uint32_t top = 0;
  };
  const Ranks& ranks(SortField field) const;

  LibraryIndex() = default;

 private:
  std::shared_ptr<const TrackSnapshot> snapshot_;
  std::shared_ptr<const std::vector<Row>> rows_;
  std::shared_ptr<const std::vector<TrackRow>> patches_;
  std::shared_ptr<const std::string> searchArena_, patchArena_;
  std::shared_ptr<const NameTable> genres_, names_, albums_;
  std::shared_ptr<const LibrarySets> sets_;
  std::shared_ptr<const std::unordered_map<int64_t, uint32_t>> byId_;

  mutable std::mutex ranksLock_;
  mutable std::array<std::shared_ptr<const Ranks>, kSortFieldCount> ranks_;
};

// A row's search text ("title␟artist␟album␟genre", lower-cased), appended.
void appendSearchText(std::string& out, std::string_view title, std::string_view artist,
                      std::string_view album, std::string_view genre);

// A row's flags and categories from its record and the library's sets.
LibraryIndex::Row describe(const TrackRow& row, const LibrarySets& sets);

}  // namespace orvel::library
