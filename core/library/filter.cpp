#include "core/library/filter.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

#include "core/library/text_keys.h"
#include "core/text/key_names.h"
#include "core/text/split.h"

namespace orvel::library {
namespace {

using Clock = std::chrono::steady_clock;

FilterResult cancelledRun() {
  FilterResult r;
  r.cancelled = true;
  return r;
}

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

bool cancelled(const std::atomic<bool>* cancel) {
  return cancel && cancel->load(std::memory_order_relaxed);
}

std::optional<bool> yesNo(std::string_view value) {
  const std::string v = folded(trim(value));
  if (v.empty() || v == "yes" || v == "1" || v == "true" || v == "on") return true;
  if (v == "no" || v == "0" || v == "false" || v == "off") return false;
  return std::nullopt;
}

// A scope prepared once per run: the value folded, parsed or looked up.
class ScopeTest {
 public:
  ScopeTest(const LibraryIndex& index, const Scope& scope) : index_(index) {
    const std::string_view key = scope.key;
    value_ = folded(trim(scope.value));
    if (key == "artist") {
      kind_ = Kind::artist;
      name_ = index.names().find(scope.value);
    } else if (key == "title") {
      kind_ = Kind::title;
    } else if (key == "album") {
      kind_ = Kind::album;
      name_ = index.albums().find(scope.value);
    } else if (key == "year") {
      kind_ = Kind::year;
      value_ = std::string(trim(scope.value));
    } else if (key == "genre") {
      kind_ = Kind::genre;
      name_ = index.genres().find(scope.value);
    } else if (key == "bpm") {
      kind_ = Kind::bpm;
      const auto parts = split(trim(scope.value), '-');
      auto num = [](std::string_view t) { return std::strtod(std::string(trim(t)).c_str(), nullptr); };
      if (parts.size() == 2 && !trim(parts[0]).empty()) {
        low_ = num(parts[0]);
        high_ = num(parts[1]);
      } else {
        low_ = high_ = std::round(num(scope.value));
        rounded_ = true;
      }
    } else if (key == "key") {
      kind_ = Kind::key;
      camelot_ = KeyColor::camelot(scope.value);
    } else if (key == "isrc" || key == "lossless" || key == "artwork" || key == "missing") {
      kind_ = key == "isrc" ? Kind::isrc
              : key == "lossless" ? Kind::lossless
              : key == "artwork" ? Kind::artwork
                                  : Kind::missing;
      wanted_ = yesNo(scope.value).value_or(true);
    }
  }

  bool operator()(uint32_t i) const {
    const LibraryIndex::Row& r = index_.at(i);
    switch (kind_) {
      case Kind::none: return true;
      case Kind::artist: return name_ && (r.artist == *name_ || r.albumArtist == *name_);
      case Kind::title: return folded(trim(index_.row(i).title())) == value_;
      case Kind::album: return name_ && r.album == *name_;
      case Kind::genre: return name_ && r.genre == *name_;
      case Kind::year: return trim(index_.row(i).year()) == value_;
      case Kind::bpm: {
        const auto& bpm = index_.row(i).bpm;
        if (!bpm) return false;
        const double v = rounded_ ? std::round(*bpm) : *bpm;
        return v >= low_ && v <= high_;
      }
      case Kind::key: {
        const std::string_view k = index_.row(i).key();
        if (camelot_) return KeyColor::camelot(k) == camelot_;
        return folded(trim(k)) == value_;
      }
      case Kind::isrc: return ((r.flags & LibraryIndex::kIsrc) != 0) == wanted_;
      case Kind::lossless: return ((r.flags & LibraryIndex::kLossless) != 0) == wanted_;
      case Kind::artwork: return ((r.flags & LibraryIndex::kArtwork) != 0) == wanted_;
      case Kind::missing: return index_.row(i).missing == wanted_;
    }
    return true;
  }

 private:
  enum class Kind { none, artist, title, album, year, genre, bpm, key, isrc, lossless, artwork, missing };
  const LibraryIndex& index_;
  Kind kind_ = Kind::none;
  std::string value_;
  std::optional<uint32_t> name_;
  double low_ = 0, high_ = 0;
  bool rounded_ = false;
  std::optional<CamelotKey> camelot_;
  bool wanted_ = true;
};

bool inSource(const LibraryIndex& index, uint32_t i, const Source& source, int64_t now) {
  switch (source.kind) {
    case Source::Kind::library:
    case Source::Kind::tracks:
      return true;
    case Source::Kind::category:
      if (source.category == Category::recentlyAdded) {
        const auto& added = index.row(i).dateAdded;
        return added && *added >= now - kRecentSeconds;
      }
      return (index.at(i).categories & bit(source.category)) != 0;
    case Source::Kind::folder: {
      const std::string_view path = index.row(i).path();
      std::string_view folder = source.folder;
      while (folder.size() > 1 && folder.back() == '/') folder.remove_suffix(1);
      return path.size() > folder.size() && path.starts_with(folder) &&
             (folder == "/" || path[folder.size()] == '/');
    }
  }
  return true;
}

// Rows of the source in the source's order: the launch order (newest first)
// for the library and its parts, the list's own order for a list.
std::vector<uint32_t> sourceRows(const LibraryIndex& index, const FilterQuery& q,
                                 int64_t& hiddenDisliked) {
  std::vector<uint32_t> rows;
  const bool keepDisliked =
      q.source.kind == Source::Kind::category && q.source.category == Category::disliked;
  auto take = [&](uint32_t i) {
    if (index.hidden(i)) return;
    if (!keepDisliked && index.row(i).disliked) {
      ++hiddenDisliked;
      return;
    }
    rows.push_back(i);
  };
  if (q.source.kind == Source::Kind::tracks) {
    if (!q.source.ids) return rows;
    rows.reserve(q.source.ids->size());
    for (int64_t id : *q.source.ids)
      if (const auto i = index.find(id)) take(*i);
    return rows;
  }
  rows.reserve(index.size());
  const auto n = static_cast<uint32_t>(index.size());
  for (uint32_t i = 0; i < n; ++i)
    if (inSource(index, i, q.source, q.now)) take(i);
  return rows;
}

template <typename Keep>
void keepIf(std::vector<uint32_t>& rows, Keep keep) {
  rows.erase(std::remove_if(rows.begin(), rows.end(), [&](uint32_t i) { return !keep(i); }),
             rows.end());
}

// A stable sort of `rows` by 32-bit keys, least significant 16 bits first.
void radixSort(std::vector<uint32_t>& rows, std::vector<uint32_t>& keys, uint32_t top,
               std::vector<uint32_t>& rowsTmp, std::vector<uint32_t>& keysTmp) {
  const size_t n = rows.size();
  std::vector<uint32_t> count(1 << 16);
  for (int shift = 0; shift < 32; shift += 16) {
    if (shift > 0 && (top >> shift) == 0) break;
    std::fill(count.begin(), count.end(), 0);
    for (size_t j = 0; j < n; ++j) ++count[(keys[j] >> shift) & 0xFFFF];
    uint32_t sum = 0;
    for (uint32_t& c : count) {
      const uint32_t here = c;
      c = sum;
      sum += here;
    }
    for (size_t j = 0; j < n; ++j) {
      const uint32_t at = count[(keys[j] >> shift) & 0xFFFF]++;
      rowsTmp[at] = rows[j];
      keysTmp[at] = keys[j];
    }
    rows.swap(rowsTmp);
    keys.swap(keysTmp);
  }
}

// Stable, by every column: one stable pass per column from the least
// significant to the most, each by the column's precomputed ranks.
void sortRows(const LibraryIndex& index, std::vector<uint32_t>& rows,
              const std::vector<SortColumn>& columns) {
  if (columns.empty() || rows.size() < 2) return;
  std::vector<uint32_t> keys(rows.size()), rowsTmp(rows.size()), keysTmp(rows.size());
  for (auto it = columns.rbegin(); it != columns.rend(); ++it) {
    const LibraryIndex::Ranks& ranks = index.ranks(it->field);
    for (size_t j = 0; j < rows.size(); ++j) {
      const uint32_t r = ranks.rank[rows[j]];
      keys[j] = it->ascending ? r : ranks.top - r;
    }
    radixSort(rows, keys, ranks.top, rowsTmp, keysTmp);
  }
}

// The selected texts of one column as the ids rows carry.
std::vector<uint8_t> selectedIds(const NameTable& table, const std::vector<std::string>& texts,
                                 bool* compilations = nullptr) {
  std::vector<uint8_t> selected(table.size(), 0);
  for (const std::string& t : texts) {
    if (compilations && t == kCompilations) *compilations = true;
    if (const auto id = table.find(t)) selected[*id] = 1;
  }
  return selected;
}

std::vector<std::string> columnOf(const NameTable& table, const std::vector<uint8_t>& present,
                                  bool compilations) {
  std::vector<std::pair<uint32_t, uint32_t>> order;  // (order, id)
  for (uint32_t id = 1; id < present.size(); ++id)
    if (present[id]) order.emplace_back(table.order(id), id);
  std::sort(order.begin(), order.end());
  std::vector<std::string> out;
  out.reserve(order.size() + 1);
  // "Compilations" heads the column, apart from the names.
  if (compilations) out.emplace_back(kCompilations);
  for (const auto& [o, id] : order) out.emplace_back(table.display(id));
  return out;
}

ViewStats statsOf(const LibraryIndex& index, const std::vector<uint32_t>& rows,
                  const BrowserOptions& options) {
  ViewStats s;
  s.tracks = static_cast<int64_t>(rows.size());
  std::vector<uint8_t> artists(index.names().size() + 1, 0), albums(index.albums().size(), 0);
  double bpmSum = 0;
  int64_t bpmCount = 0;
  for (uint32_t i : rows) {
    const TrackRow& r = index.row(i);
    if (r.durationMs && *r.durationMs > 0) s.totalMs += *r.durationMs;
    s.totalBytes += r.sizeBytes;
    const uint32_t artist = browserArtist(index, i, options);
    uint8_t& a = artists[artist == kCompilationsId ? artists.size() - 1 : artist];
    if (!a && artist != 0) {
      a = 1;
      ++s.artists;
    }
    const uint32_t album = index.at(i).album;
    if (album != 0 && !albums[album]) {
      albums[album] = 1;
      ++s.albums;
    }
    if (r.cueCount > 0) ++s.withCues;
    if (r.bpm && *r.bpm > 40 && *r.bpm < 250) {
      bpmSum += *r.bpm;
      ++bpmCount;
    }
    if (!r.musicPID().empty()) ++s.sharedWithMusic;
  }
  s.avgBPM = bpmCount ? bpmSum / static_cast<double>(bpmCount) : 0;
  return s;
}

std::string grouped(int64_t n) {
  std::string digits = std::to_string(n < 0 ? -n : n);
  for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
    digits.insert(static_cast<size_t>(at), ",");
  return n < 0 ? "-" + digits : digits;
}

std::string playingTime(int64_t ms) {
  const int64_t minutes = ms / 60000;
  if (minutes < 60) return fmt::format("{} min", minutes);
  const int64_t hours = minutes / 60;
  if (hours < 24) return fmt::format("{} h {} min", hours, minutes % 60);
  return fmt::format("{} d {} h", hours / 24, hours % 24);
}

std::string bytesText(int64_t bytes) {
  const double mb = static_cast<double>(bytes) / 1e6;
  if (mb < 1000) return fmt::format("{:.0f} MB", mb);
  if (mb < 1e6) return fmt::format("{:.1f} GB", mb / 1000);
  return fmt::format("{:.2f} TB", mb / 1e6);
}

}  // namespace

BrowserColumns browserColumns(const LibraryIndex& index, std::span<const uint32_t> rows,
                              const BrowserOptions& options) {
  std::vector<uint8_t> genres(index.genres().size(), 0), artists(index.names().size(), 0),
      albums(index.albums().size(), 0);
  bool compilations = false;
  for (uint32_t i : rows) {
    const LibraryIndex::Row& r = index.at(i);
    genres[r.genre] = 1;
    albums[r.album] = 1;
    const uint32_t a = browserArtist(index, i, options);
    if (a == kCompilationsId)
      compilations = true;
    else
      artists[a] = 1;
  }
  return {columnOf(index.genres(), genres, false), columnOf(index.names(), artists, compilations),
          columnOf(index.albums(), albums, false)};
}

uint32_t browserArtist(const LibraryIndex& index, uint32_t row, const BrowserOptions& options) {
  const LibraryIndex::Row& r = index.at(row);
  if (options.groupCompilations && index.row(row).compilation) return kCompilationsId;
  if (options.useAlbumArtists && r.albumArtist != 0) return r.albumArtist;
  return r.artist;
}

FilterResult runFilter(const LibraryIndex& index, const FilterQuery& q,
                       const std::atomic<bool>* cancel) {
  const auto start = Clock::now();
  FilterResult out;
  int64_t hiddenDisliked = 0;
  std::vector<uint32_t> rows = sourceRows(index, q, hiddenDisliked);
  if (cancelled(cancel)) return cancelledRun();

  if (q.content != Content::all)
    keepIf(rows, [&](uint32_t i) { return index.at(i).content == q.content; });
  bool narrowed = q.source.kind != Source::Kind::library || q.content != Content::all;
  if (q.scope) {
    const ScopeTest inScope(index, *q.scope);
    keepIf(rows, inScope);
    narrowed = true;
  }
  // The search text is folded once, here.
  const std::string needle = searchNeedle(q.search);
  if (!needle.empty()) {
    keepIf(rows, [&](uint32_t i) { return searchFinds(index.searchText(i), needle); });
    narrowed = true;
  }
  if (cancelled(cancel)) return cancelledRun();

  const auto browseStart = Clock::now();
  if (q.browser.shown) {
    out.browser = browserColumns(index, rows, q.browser);
    if (!q.selection.empty()) {
      bool compilationsChosen = false;
      const auto g = selectedIds(index.genres(), q.selection.genres);
      const auto a = selectedIds(index.names(), q.selection.artists, &compilationsChosen);
      const auto b = selectedIds(index.albums(), q.selection.albums);
      keepIf(rows, [&](uint32_t i) {
        const LibraryIndex::Row& r = index.at(i);
        if (!q.selection.genres.empty() && !g[r.genre]) return false;
        if (!q.selection.albums.empty() && !b[r.album]) return false;
        if (!q.selection.artists.empty()) {
          const uint32_t artist = browserArtist(index, i, q.browser);
          if (artist == kCompilationsId ? !compilationsChosen : !a[artist]) return false;
        }
        return true;
      });
      narrowed = true;
    }
  }
  out.ms.browse = msSince(browseStart);
  if (cancelled(cancel)) return cancelledRun();

  const auto sortStart = Clock::now();
  sortRows(index, rows, q.sort);
  out.ms.sort = msSince(sortStart);
  if (cancelled(cancel)) return cancelledRun();

  const auto statsStart = Clock::now();
  out.stats = statsOf(index, rows, q.browser);
  out.stats.hiddenDisliked = hiddenDisliked;
  out.stats.wholeLibrary = !narrowed;
  for (uint32_t i = 0; i < index.size(); ++i) out.stats.libraryTotal += index.hidden(i) ? 0 : 1;
  out.ms.stats = msSince(statsStart);
  out.rows = std::move(rows);
  out.ms.total = msSince(start);
  return out;
}

std::string logLine(const FilterResult& r) {
  return fmt::format("refilter {:.0f}ms [browse {:.0f} \u00b7 sort {:.0f} \u00b7 stats {:.0f}] -> {} rows",
                     r.ms.total, r.ms.browse, r.ms.sort, r.ms.stats, r.rows.size());
}

std::string statusText(const ViewStats& s) {
  std::string text = grouped(s.tracks) + (s.tracks == 1 ? " track" : " tracks");
  if (!s.wholeLibrary && s.libraryTotal > 0) text += " of " + grouped(s.libraryTotal);
  if (s.tracks > 0) {
    text += " \u00b7 " + playingTime(s.totalMs) + " \u00b7 " + bytesText(s.totalBytes);
    text += fmt::format(" \u00b7 {} {} \u00b7 {} {}", grouped(s.artists),
                        s.artists == 1 ? "artist" : "artists", grouped(s.albums),
                        s.albums == 1 ? "album" : "albums");
    if (s.withCues > 0) text += " \u00b7 " + grouped(s.withCues) + " with cues";
    if (s.avgBPM > 0) text += fmt::format(" \u00b7 avg {:.0f} BPM", s.avgBPM);
  }
  if (s.hiddenDisliked > 0) text += " \u00b7 " + grouped(s.hiddenDisliked) + " disliked hidden";
  if (s.sharedWithMusic > 0) text += " \u00b7 " + grouped(s.sharedWithMusic) + " shared with Music";
  return text;
}

std::array<int64_t, kCategoryCount> categoryCounts(const LibraryIndex& index, int64_t now) {
  std::array<int64_t, kCategoryCount> counts{};
  const int64_t since = now - kRecentSeconds;
  const auto n = static_cast<uint32_t>(index.size());
  for (uint32_t i = 0; i < n; ++i) {
    if (index.hidden(i)) continue;
    const TrackRow& row = index.row(i);
    if (row.disliked) {
      ++counts[static_cast<size_t>(Category::disliked)];
      continue;
    }
    for (uint32_t mask = index.at(i).categories; mask != 0; mask &= mask - 1)
      ++counts[static_cast<size_t>(std::countr_zero(mask))];
    if (row.dateAdded && *row.dateAdded >= since)
      ++counts[static_cast<size_t>(Category::recentlyAdded)];
  }
  return counts;
}

std::array<double, 4> tempoCuts(const LibraryIndex& index) {
  std::vector<double> tempi;
  for (uint32_t i = 0; i < index.size(); ++i) {
    if (index.hidden(i)) continue;
    const auto& bpm = index.row(i).bpm;
    if (bpm && *bpm > 30 && *bpm < 260) tempi.push_back(*bpm);
  }
  if (tempi.size() <= 500) return {82, 92, 100, 116};
  std::sort(tempi.begin(), tempi.end());
  const double n = static_cast<double>(tempi.size());
  std::array<double, 4> cuts{};
  for (size_t k = 0; k < 4; ++k) cuts[k] = tempi[static_cast<size_t>(n * 0.2 * double(k + 1))];
  return cuts;
}

std::string searchNeedle(std::string_view typed) {
  std::string needle = folded(trim(typed));
  std::erase(needle, LibraryIndex::kFieldSeparator);
  return needle;
}

std::vector<int64_t> idsMatching(const LibraryIndex& index, std::string_view text) {
  const std::string needle = searchNeedle(text);
  std::vector<int64_t> ids;
  for (uint32_t i = 0; i < index.size(); ++i)
    if (!index.hidden(i) && searchFinds(index.searchText(i), needle)) ids.push_back(index.row(i).id);
  return ids;
}

}  // namespace orvel::library
