#include "core/library/library_index.h"

#include <algorithm>
#include <numeric>
#include <variant>

#include "core/library/text_keys.h"
#include "core/platform/os.h"
#include "core/text/key_names.h"
#include "core/text/path_norm.h"
#include "core/text/split.h"

namespace orvel::library {

std::optional<uint32_t> NameTable::find(std::string_view text) const {
  const auto it = byFolded_.find(std::string_view(folded(trim(text))));
  if (it == byFolded_.end()) return std::nullopt;
  return it->second;
}

uint32_t NameTable::intern(std::string_view text) {
  const std::string_view t = trim(text);
  if (t.empty()) return 0;
  scratch_.clear();
  appendLowerUnicode(scratch_, t);
  if (const auto it = byFolded_.find(std::string_view(scratch_)); it != byFolded_.end())
    return it->second;
  const uint32_t id = size();
  byFolded_.emplace(scratch_, id);
  display_.emplace_back(t);
  folded_.push_back(scratch_);
  return id;
}

void NameTable::finish() {
  std::vector<std::pair<std::string, uint32_t>> keyed;
  keyed.reserve(size());
  for (uint32_t id = 1; id < size(); ++id) keyed.emplace_back(orderKey(sortKey(display_[id])), id);
  std::stable_sort(keyed.begin(), keyed.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  order_.assign(size(), 0);
  for (uint32_t i = 0; i < keyed.size(); ++i) order_[keyed[i].second] = i + 1;
}

void appendSearchText(std::string& out, std::string_view title, std::string_view artist,
                      std::string_view album, std::string_view genre) {
  appendLowerUnicode(out, title);
  out += LibraryIndex::kFieldSeparator;
  appendLowerUnicode(out, artist);
  out += LibraryIndex::kFieldSeparator;
  appendLowerUnicode(out, album);
  out += LibraryIndex::kFieldSeparator;
  appendLowerUnicode(out, genre);
}

LibraryIndex::Row describe(const TrackRow& row, const LibrarySets& sets) {
  LibraryIndex::Row r;
  const bool isrc = sets.withIsrc.count(row.id) > 0;
  const TrackFacts facts = factsOf(row, isrc);
  r.categories = categoryMask(row, facts);
  r.content = facts.content();
  if (facts.lossless) r.flags |= LibraryIndex::kLossless;
  if (isrc) r.flags |= LibraryIndex::kIsrc;
  if (sets.withArtwork.count(row.id)) r.flags |= LibraryIndex::kArtwork;
  if (sets.duplicates.count(row.id)) {
    r.flags |= LibraryIndex::kDuplicate;
    r.categories |= bit(Category::duplicates);
  }
  if (sets.damaged.count(row.id)) {
    r.flags |= LibraryIndex::kDamaged;
    r.categories |= bit(Category::damaged);
  }
  return r;
}

namespace {

void appendSearchText(const TrackRow& row, std::string& arena, LibraryIndex::Row& r) {
  r.searchAt = static_cast<uint32_t>(arena.size());
  library::appendSearchText(arena, row.title(), row.artist(), row.album(), row.genre());
  r.searchSize = static_cast<uint32_t>(arena.size() - r.searchAt);
}

void nameIds(const TrackRow& row, NameTable& genres, NameTable& names, NameTable& albums,
             LibraryIndex::Row& r) {
  r.genre = genres.intern(row.genre());
  r.artist = names.intern(row.artist());
  r.albumArtist = names.intern(row.albumArtist());
  r.album = albums.intern(row.album());
}

}  // namespace

std::shared_ptr<const LibraryIndex> LibraryIndex::build(
    std::shared_ptr<const TrackSnapshot> snapshot, LibrarySets sets, Classify classify) {
  auto index = std::make_shared<LibraryIndex>();
  const auto& src = snapshot->rows;
  auto rows = std::make_shared<std::vector<Row>>();
  rows->reserve(src.size());
  platform::preferLargePages(rows->data(), rows->capacity() * sizeof(Row));
  rows->resize(src.size());
  auto arena = std::make_shared<std::string>();
  arena->reserve(src.size() * 48);
  platform::preferLargePages(arena->data(), arena->capacity());
  auto genres = std::make_shared<NameTable>(), names = std::make_shared<NameTable>(),
       albums = std::make_shared<NameTable>();
  auto byId = std::make_shared<std::unordered_map<int64_t, uint32_t>>();
  byId->reserve(src.size());
  for (size_t i = 0; i < src.size(); ++i) {
    Row& r = (*rows)[i];
    if (classify == Classify::yes)
      r = describe(src[i], sets);
    else
      r.categories = bit(Category::allTracks);
    appendSearchText(src[i], *arena, r);
    nameIds(src[i], *genres, *names, *albums, r);
    byId->emplace(src[i].id, static_cast<uint32_t>(i));
  }
  genres->finish();
  names->finish();
  albums->finish();
  index->snapshot_ = std::move(snapshot);
  index->rows_ = std::move(rows);
  index->patches_ = std::make_shared<std::vector<TrackRow>>();
  index->searchArena_ = std::move(arena);
  index->patchArena_ = std::make_shared<std::string>();
  index->genres_ = std::move(genres);
  index->names_ = std::move(names);
  index->albums_ = std::move(albums);
  index->sets_ = std::make_shared<LibrarySets>(std::move(sets));
  index->byId_ = std::move(byId);
  return index;
}

std::optional<uint32_t> LibraryIndex::find(int64_t id) const {
  const auto it = byId_->find(id);
  if (it == byId_->end()) return std::nullopt;
  return it->second;
}

namespace {

// The value a row sorts by in one column: a number, a text key, or nothing.
using SortValue = std::variant<std::monostate, double, std::string>;

std::optional<double> number(const std::optional<int32_t>& v) {
  return v ? std::optional<double>(*v) : std::nullopt;
}
std::optional<double> number(const std::optional<int64_t>& v) {
  return v ? std::optional<double>(static_cast<double>(*v)) : std::nullopt;
}

SortValue textValue(std::string_view text) {
  const std::string_view t = trim(text);
  if (t.empty()) return std::monostate{};
  return orderKey(t);
}

SortValue numberValue(std::optional<double> v) {
  if (!v) return std::monostate{};
  return *v;
}

// Keys in Camelot order (1A, 1B, 2A …), so neighbouring keys on the wheel
// sort together; a key no notation knows sorts after them by its text.
SortValue keyValue(std::string_view key) {
  if (trim(key).empty()) return std::monostate{};
  if (const auto c = KeyColor::camelot(key))
    return static_cast<double>(c->number * 2 + (c->minor ? 0 : 1));
  return "~" + orderKey(key);
}

SortValue valueOf(const TrackRow& r, SortField field) {
  switch (field) {
    case SortField::title:
      return textValue(sortKey(r.title()));
    case SortField::artist:
      return textValue(r.artist());
    case SortField::album:
      return textValue(r.album());
    case SortField::genre:
      return textValue(r.genre());
    case SortField::bpm:
      return numberValue(r.bpm);
    case SortField::key:
      return keyValue(r.key());
    case SortField::duration:
      return numberValue(number(r.durationMs));
    case SortField::rating:
      return numberValue(number(r.rating));
    case SortField::loved:
      return r.loved ? SortValue(1.0) : std::monostate{};
    case SortField::dateAdded:
      return numberValue(number(r.dateAdded));
    case SortField::dateCreated:
      return numberValue(number(r.dateCreated));
    case SortField::size:
      return r.sizeBytes > 0 ? SortValue(double(r.sizeBytes)) : std::monostate{};
    case SortField::cues:
      return r.cueCount > 0 ? SortValue(double(r.cueCount)) : std::monostate{};
    case SortField::year:
      return textValue(r.year());
    case SortField::comment:
      return textValue(r.comment());
    case SortField::grouping:
      return textValue(r.grouping());
    case SortField::label:
      return textValue(r.label());
    case SortField::plays:
      return numberValue(number(r.playCount));
    case SortField::bitrate:
      return numberValue(number(r.bitrateKbps));
    case SortField::sampleRate:
      return numberValue(number(r.sampleRate));
    case SortField::trackNumber:
      return numberValue(number(r.trackNumber));
    case SortField::discNumber:
      return numberValue(number(r.discNumber));
    case SortField::albumArtist:
      return textValue(r.albumArtist());
    case SortField::composer:
      return textValue(r.composer());
    case SortField::lastPlayed:
      return numberValue(number(r.lastPlayed));
    case SortField::fileName:
      return textValue(lastPathComponent(r.path()));
    case SortField::kind:
      return textValue(extensionOf(r.path()));
    case SortField::id:
      return static_cast<double>(r.id);
  }
  return std::monostate{};
}

}  // namespace

const LibraryIndex::Ranks& LibraryIndex::ranks(SortField field) const {
  std::lock_guard lock(ranksLock_);
  auto& slot = ranks_[static_cast<size_t>(field)];
  if (slot) return *slot;
  auto out = std::make_shared<Ranks>();
  const auto n = static_cast<uint32_t>(size());
  out->rank.assign(n, 0);
  // The three browser columns are ranked already, by their name tables.
  const NameTable* table = field == SortField::artist  ? names_.get()
                           : field == SortField::album ? albums_.get()
                           : field == SortField::genre ? genres_.get()
                                                       : nullptr;
  if (table) {
    for (uint32_t i = 0; i < n; ++i) {
      const Row& r = (*rows_)[i];
      const uint32_t id = field == SortField::artist  ? r.artist
                          : field == SortField::album ? r.album
                                                      : r.genre;
      out->rank[i] = table->order(id);
    }
    out->top = table->size();
  } else {
    std::vector<std::pair<SortValue, uint32_t>> values;
    values.reserve(n);
    for (uint32_t i = 0; i < n; ++i) {
      SortValue v = valueOf(row(i), field);
      if (!std::holds_alternative<std::monostate>(v)) values.emplace_back(std::move(v), i);
    }
    std::sort(values.begin(), values.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    uint32_t rank = 0;
    for (size_t k = 0; k < values.size(); ++k) {
      if (k == 0 || values[k].first != values[k - 1].first) ++rank;
      out->rank[values[k].second] = rank;
    }
    out->top = rank;
  }
  slot = std::move(out);
  return *slot;
}

std::shared_ptr<const LibraryIndex> LibraryIndex::patched(std::span<const TrackRow> changed,
                                                          std::span<const int64_t> hide) const {
  auto next = std::make_shared<LibraryIndex>();
  next->snapshot_ = snapshot_;
  next->searchArena_ = searchArena_;
  next->sets_ = sets_;
  next->byId_ = byId_;
  auto rows = std::make_shared<std::vector<Row>>(*rows_);
  auto patches = std::make_shared<std::vector<TrackRow>>(*patches_);
  auto arena = std::make_shared<std::string>(*patchArena_);
  // The name tables are copied only when a row brings a value they lack.
  std::shared_ptr<NameTable> genres, names, albums;
  auto known = [](const NameTable& t, std::string_view v) { return t.find(v).has_value(); };
  for (const TrackRow& row : changed)
    if (find(row.id)) {
      if (!genres && !known(*genres_, row.genre())) genres = std::make_shared<NameTable>(*genres_);
      if (!names && (!known(*names_, row.artist()) || !known(*names_, row.albumArtist())))
        names = std::make_shared<NameTable>(*names_);
      if (!albums && !known(*albums_, row.album())) albums = std::make_shared<NameTable>(*albums_);
    }
  // A copied table takes new values; the shared ones only answer ids.
  auto idIn = [](const NameTable& shared, NameTable* copy, std::string_view v) {
    return copy ? copy->intern(v) : shared.find(v).value_or(0);
  };

  std::vector<uint32_t> touched;
  for (const TrackRow& row : changed) {
    const auto i = find(row.id);
    if (!i) continue;
    Row& r = (*rows)[*i];
    const int32_t slot = r.patch >= 0 ? r.patch : static_cast<int32_t>(patches->size());
    const uint8_t hiddenFlag = r.flags & kHidden;
    r = describe(row, *sets_);
    r.flags |= hiddenFlag;
    r.patch = slot;
    if (static_cast<size_t>(slot) == patches->size())
      patches->push_back(row);
    else
      (*patches)[static_cast<size_t>(slot)] = row;
    appendSearchText(row, *arena, r);
    r.genre = idIn(*genres_, genres.get(), row.genre());
    r.artist = idIn(*names_, names.get(), row.artist());
    r.albumArtist = idIn(*names_, names.get(), row.albumArtist());
    r.album = idIn(*albums_, albums.get(), row.album());
    touched.push_back(*i);
  }
  for (int64_t id : hide)
    if (const auto i = find(id)) (*rows)[*i].flags |= kHidden;
  if (genres) genres->finish();
  if (names) names->finish();
  if (albums) albums->finish();
  next->genres_ = genres ? std::move(genres) : genres_;
  next->names_ = names ? std::move(names) : names_;
  next->albums_ = albums ? std::move(albums) : albums_;
  next->rows_ = std::move(rows);
  next->patches_ = std::move(patches);
  next->patchArena_ = std::move(arena);

  // A column's ranks stay good when no changed row moved in it.
  std::lock_guard lock(ranksLock_);
  for (size_t f = 0; f < kSortFieldCount; ++f) {
    if (!ranks_[f]) continue;
    const auto field = static_cast<SortField>(f);
    const bool browserColumn =
        field == SortField::artist || field == SortField::album || field == SortField::genre;
    bool same = !(browserColumn &&
                  (next->names_ != names_ || next->albums_ != albums_ || next->genres_ != genres_));
    for (uint32_t i : touched) {
      if (!same) break;
      same = valueOf(row(i), field) == valueOf(next->row(i), field);
    }
    if (same) next->ranks_[f] = ranks_[f];
  }
  return next;
}

std::shared_ptr<const LibraryIndex> LibraryIndex::withDuplicates(
    std::unordered_set<int64_t> ids) const {
  LibrarySets sets = *sets_;
  sets.duplicates = std::move(ids);
  auto next = std::make_shared<LibraryIndex>();
  next->snapshot_ = snapshot_;
  next->patches_ = patches_;
  next->searchArena_ = searchArena_;
  next->patchArena_ = patchArena_;
  next->genres_ = genres_;
  next->names_ = names_;
  next->albums_ = albums_;
  next->byId_ = byId_;
  auto rows = std::make_shared<std::vector<Row>>(*rows_);
  for (uint32_t i = 0; i < rows->size(); ++i) {
    Row& r = (*rows)[i];
    const bool dupe = sets.duplicates.count(row(i).id) > 0;
    r.flags = static_cast<uint8_t>(dupe ? r.flags | kDuplicate : r.flags & ~kDuplicate);
    r.categories =
        dupe ? r.categories | bit(Category::duplicates) : r.categories & ~bit(Category::duplicates);
  }
  next->rows_ = std::move(rows);
  next->sets_ = std::make_shared<LibrarySets>(std::move(sets));
  std::lock_guard lock(ranksLock_);
  next->ranks_ = ranks_;
  return next;
}

std::shared_ptr<const LibraryIndex> LibraryIndex::withSets(LibrarySets sets) const {
  auto next = std::make_shared<LibraryIndex>();
  next->snapshot_ = snapshot_;
  next->patches_ = patches_;
  next->searchArena_ = searchArena_;
  next->patchArena_ = patchArena_;
  next->genres_ = genres_;
  next->names_ = names_;
  next->albums_ = albums_;
  next->byId_ = byId_;
  auto rows = std::make_shared<std::vector<Row>>(*rows_);
  for (uint32_t i = 0; i < rows->size(); ++i) {
    Row& r = (*rows)[i];
    const Row fresh = describe(row(i), sets);
    r.categories = fresh.categories;
    r.content = fresh.content;
    r.flags = static_cast<uint8_t>(fresh.flags | (r.flags & kHidden));
  }
  next->rows_ = std::move(rows);
  next->sets_ = std::make_shared<LibrarySets>(std::move(sets));
  std::lock_guard lock(ranksLock_);
  next->ranks_ = ranks_;
  return next;
}

}  // namespace orvel::library
