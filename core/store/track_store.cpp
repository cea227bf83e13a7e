// Adding, loading and editing tracks. Every edit a user can undo is journaled.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <unordered_set>

#include "core/platform/os.h"
#include "core/store/log.h"
#include "core/store/orvel_db.h"
#include "core/store/track_values.h"
#include "core/text/split.h"

namespace orvel {
namespace {

// The launch query. It runs over the whole library at start-up, so it selects
// exactly the fields a table column shows and nothing else: every column
// costs. Left out on purpose: category, cloud status, movement, description,
// purchase date. Each column is named once, here, with the position it is
// read back from; the static_assert below keeps names and positions in step.
enum Col : int {
  cId,
  cTitle,
  cArtist,
  cAlbum,
  cGenre,
  cBpm,
  cKey,
  cDuration,
  cPath,
  cMissing,
  cCueCount,
  cSize,
  cProduction,
  cYear,
  cComment,
  cGrouping,
  cLabel,
  cDateAdded,
  cDateCreated,
  cBitrate,
  cPlayCount,
  cRating,
  cFlags,
  cAlbumArtist,
  cCompilation,
  cComposer,
  cTrackNumber,
  cDiscNumber,
  cSampleRate,
  cAlbumRating,
  cDateModified,
  cLastPlayed,
  cLastSkipped,
  cSkips,
  cReleaseDate,
  cWork,
  cEqualizer,
  cSeratoColor,
  cMusicPID,
  cSortArtist,
  cSortAlbum,
  cSortAlbumArtist,
  cHasVideo,
  cLoved,
  cDisliked,
  cMaster,
  kColumnCount
};

struct Column {
  Col col;
  std::string_view sql;
};

constexpr std::array<Column, kColumnCount> kColumns{{
    {cId, "t.id"},
    {cTitle, "COALESCE(t.title, t.filename, '')"},  // the file name stands in for a missing title
    {cArtist, "COALESCE(t.artist, '')"},
    {cAlbum, "COALESCE(t.album, '')"},
    {cGenre, "COALESCE(t.genre, '')"},
    {cBpm, "t.bpm"},
    {cKey, "COALESCE(t.key, '')"},
    {cDuration, "t.duration_ms"},
    {cPath, "t.path"},
    {cMissing, "t.file_missing"},
    {cCueCount, "(SELECT COUNT(*) FROM cues c WHERE c.track_id = t.id AND c.kind = 'cue')"},
    {cSize, "COALESCE(t.filesize_bytes, 0)"},
    {cProduction, "COALESCE(t.production, 0)"},
    {cYear, "COALESCE(t.year, '')"},
    {cComment, "COALESCE(t.comment, '')"},
    {cGrouping, "COALESCE(t.grouping, '')"},
    {cLabel, "COALESCE(t.label, '')"},
    {cDateAdded, "t.date_added"},
    {cDateCreated, "t.date_created"},
    {cBitrate, "t.bitrate_kbps"},
    {cPlayCount, "t.play_count"},
    {cRating, "t.rating"},
    {cFlags, "COALESCE(t.flags, -1)"},  // -1: never classified
    {cAlbumArtist, "COALESCE(t.album_artist, '')"},
    {cCompilation, "COALESCE(t.compilation, 0)"},
    {cComposer, "COALESCE(t.composer, '')"},
    {cTrackNumber, "t.track_number"},
    {cDiscNumber, "t.disc_number"},
    {cSampleRate, "t.samplerate_hz"},
    {cAlbumRating, "t.album_rating"},
    {cDateModified, "t.date_modified"},
    {cLastPlayed, "t.last_played"},
    {cLastSkipped, "t.last_skipped"},
    {cSkips, "t.skips"},
    {cReleaseDate, "t.release_date"},
    {cWork, "COALESCE(t.work, '')"},
    {cEqualizer, "COALESCE(t.equalizer, '')"},
    {cSeratoColor, "COALESCE(t.serato_label, '')"},
    {cMusicPID, "COALESCE(t.music_pid, '')"},
    {cSortArtist, "COALESCE(t.sort_artist, '')"},
    {cSortAlbum, "COALESCE(t.sort_album, '')"},
    {cSortAlbumArtist, "COALESCE(t.sort_album_artist, '')"},
    {cHasVideo, "COALESCE(t.has_video, -1)"},  // -1: not determined by looking inside the file
    // The flags the views mark rows with, so no list needs a query of its own.
    {cLoved, "COALESCE(t.loved, 0)"},
    {cDisliked, "COALESCE(t.disliked, 0)"},
    {cMaster, "COALESCE(t.master, 0)"},
}};

constexpr bool columnsInOrder() {
  for (int i = 0; i < kColumnCount; ++i)
    if (kColumns[static_cast<size_t>(i)].col != i) return false;
  return true;
}
static_assert(columnsInOrder(), "kColumns must list every Col once, in order");

// The row's texts, in TrackRow::Text order, and the columns they come from.
constexpr std::array<Col, TrackRow::kTexts> kTextColumns{
    cTitle,      cArtist,    cAlbum,          cGenre,    cKey,  cPath,      cYear,        cComment,
    cGrouping,   cLabel,     cAlbumArtist,    cComposer, cWork, cEqualizer, cSeratoColor, cMusicPID,
    cSortArtist, cSortAlbum, cSortAlbumArtist};

std::string selectColumns() {
  std::string sql = "SELECT\n  ";
  for (size_t i = 0; i < kColumns.size(); ++i) {
    if (i != 0) sql += ",\n  ";
    sql += kColumns[i].sql;
  }
  return sql + "\nFROM tracks t\n";
}

std::optional<int32_t> optInt32(const Statement& st, int col) {
  if (st.isNull(col)) return std::nullopt;
  return static_cast<int32_t>(st.int64(col));
}

void readTrack(const Statement& st, TrackRow& r) {
  std::array<std::string_view, TrackRow::kTexts> texts;
  for (size_t i = 0; i < texts.size(); ++i) texts[i] = st.textView(kTextColumns[i]);
  r.setTexts(texts);
  r.id = st.int64(cId);
  r.bpm = st.optReal(cBpm);
  r.durationMs = st.optInt64(cDuration);
  r.missing = st.int64(cMissing) != 0;
  r.cueCount = static_cast<int32_t>(st.int64(cCueCount));
  r.sizeBytes = st.int64(cSize);
  r.isProduction = st.int64(cProduction) != 0;
  r.dateAdded = st.optInt64(cDateAdded);
  r.dateCreated = st.optInt64(cDateCreated);
  r.bitrateKbps = optInt32(st, cBitrate);
  r.playCount = optInt32(st, cPlayCount);
  r.rating = optInt32(st, cRating);
  r.flags = static_cast<int32_t>(st.int64(cFlags));
  r.compilation = st.int64(cCompilation) != 0;
  r.trackNumber = optInt32(st, cTrackNumber);
  r.discNumber = optInt32(st, cDiscNumber);
  r.sampleRate = optInt32(st, cSampleRate);
  r.albumRating = optInt32(st, cAlbumRating);
  r.dateModified = st.optInt64(cDateModified);
  r.lastPlayed = st.optInt64(cLastPlayed);
  r.lastSkipped = st.optInt64(cLastSkipped);
  r.skips = optInt32(st, cSkips);
  r.releaseDate = st.optInt64(cReleaseDate);
  r.hasVideo = static_cast<int8_t>(st.int64(cHasVideo));
  r.loved = st.int64(cLoved) != 0;
  r.disliked = st.int64(cDisliked) != 0;
  r.master = st.int64(cMaster) != 0;
}

bool plainIdentifier(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(),
                                   [](unsigned char c) { return std::isalnum(c) || c == '_'; });
}

}  // namespace

std::string TrackStore::launchQuery() {
  return selectColumns() + "WHERE " + std::string(kLiveTrackT) +
         " ORDER BY t.date_added DESC, t.id DESC";
}

std::vector<TrackRow> TrackStore::loadAllTracks(std::optional<int64_t> limit) const {
  std::string sql = launchQuery();
  if (limit) sql += " LIMIT " + std::to_string(std::max<int64_t>(*limit, 0));
  Statement st = conn_.prepare(sql);
  std::vector<TrackRow> rows;
  const int64_t all = conn_.count("tracks");
  rows.reserve(static_cast<size_t>(limit ? std::clamp<int64_t>(*limit, 0, all) : all));
  while (st.step()) readTrack(st, rows.emplace_back());
  return rows;
}

void TrackStore::forEachSearchable(
    const std::function<void(int64_t, std::string_view, std::string_view, std::string_view,
                             std::string_view)>& visit) const {
  Statement st = conn_.prepare(
      "SELECT t.id, COALESCE(t.title, t.filename, ''), COALESCE(t.artist, ''), "
      "COALESCE(t.album, ''), COALESCE(t.genre, '') FROM tracks t WHERE " +
      std::string(kLiveTrackT));
  while (st.step())
    visit(st.int64(0), st.textView(1), st.textView(2), st.textView(3), st.textView(4));
}

std::shared_ptr<const TrackSnapshot> TrackStore::loadSnapshot() const {
  auto snapshot = std::make_shared<TrackSnapshot>();
  snapshot->generation = conn_.generation();
  // In the table's own order: walking the date index instead fetches every
  // row out of order, which costs more than sorting them here.
  Statement st = conn_.prepare(selectColumns() + "WHERE " + std::string(kLiveTrackT));
  std::vector<TrackRow> read;
  read.reserve(static_cast<size_t>(conn_.count("tracks")));
  platform::preferLargePages(read.data(), read.capacity() * sizeof(TrackRow));
  while (st.step()) readTrack(st, read.emplace_back());
  // The launch order: newest first, a missing date last, ties by higher id.
  // The order is found on small keys and each row moved once.
  struct Key {
    int64_t added;
    int64_t id;
    uint32_t at;
  };
  std::vector<Key> keys(read.size());
  for (uint32_t i = 0; i < read.size(); ++i)
    keys[i] = {read[i].dateAdded.value_or(INT64_MIN), read[i].id, i};
  std::sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) {
    return a.added != b.added ? a.added > b.added : a.id > b.id;
  });
  // Put in place by following the permutation's cycles: no second copy of
  // a library's rows is ever allocated.
  std::vector<uint32_t> from(keys.size());
  for (uint32_t i = 0; i < keys.size(); ++i) from[i] = keys[i].at;
  for (uint32_t start = 0; start < from.size(); ++start) {
    if (from[start] == start) continue;
    TrackRow held = std::move(read[start]);
    uint32_t at = start;
    while (from[at] != start) {
      const uint32_t next = from[at];
      read[at] = std::move(read[next]);
      from[at] = at;
      at = next;
    }
    read[at] = std::move(held);
    from[at] = at;
  }
  snapshot->rows = std::move(read);
  return snapshot;
}

std::optional<TrackRow> TrackStore::loadTrack(int64_t id) const {
  Statement st = conn_.prepare(selectColumns() + "WHERE t.id = ?");
  st.bind(1, id);
  if (!st.step()) return std::nullopt;
  TrackRow row;
  readTrack(st, row);
  return row;
}

std::vector<TrackRow> TrackStore::loadTracks(std::span<const int64_t> ids) const {
  std::vector<TrackRow> rows;
  rows.reserve(ids.size());
  // In slices: a statement takes a bounded number of parameters.
  constexpr size_t kSlice = 500;
  for (size_t at = 0; at < ids.size(); at += kSlice) {
    const size_t n = std::min(kSlice, ids.size() - at);
    std::string marks;
    for (size_t i = 0; i < n; ++i) marks += i ? ",?" : "?";
    Statement st = conn_.prepare(selectColumns() + "WHERE t.id IN (" + marks + ") AND " +
                                 std::string(kLiveTrackT));
    for (size_t i = 0; i < n; ++i) st.bind(static_cast<int>(i + 1), ids[at + i]);
    while (st.step()) {
      TrackRow row;
      readTrack(st, row);
      rows.push_back(std::move(row));
    }
  }
  return rows;
}

Result<int64_t> TrackStore::orvelSourceId() {
  if (auto id = conn_.scalarInt("SELECT id FROM sources WHERE name = 'orvel' ORDER BY id LIMIT 1"))
    return *id;
  Statement st = conn_.prepare(
      "INSERT INTO sources(name, detail, imported_at) VALUES('orvel', 'drag-and-drop imports', ?)");
  if (st.bind(1, unixNow()).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return conn_.lastInsertId();
}

Result<int64_t> TrackStore::insertImported(const NewTrack& track, int64_t sourceId,
                                           ImportOutcome* outcome) {
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string key = OrvelDB::normalizePath(track.path);
  std::optional<int64_t> id;
  bool removed = false;
  {
    Statement find = conn_.cached(
        "SELECT id, coalesce(removed,0) FROM tracks\n"
        "WHERE path_norm = ? AND merged_into IS NULL LIMIT 1");
    find.bind(1, key);
    if (find.step()) {
      id = find.int64(0);
      removed = find.int64(1) != 0;
    }
  }
  if (id && removed) {
    // A removed row may share its key with a live row of the same file; the
    // live one is the track, and reinstating the old one would make two.
    if (const auto live = liveTrackId(track.path)) {
      id = live;
      removed = false;
    }
  }
  const bool foundRow = id.has_value();
  if (id) {
    // A file dropped in again brings its old row back, cues and history included.
    if (removed) {
      const std::array<int64_t, 1> one{*id};
      if (Status s = writeField("removed", std::nullopt, one); !s) return s;
      if (Status s = writeField("file_missing", "0", one); !s) return s;
    }
  } else {
    const std::string filename =
        track.filename.empty() ? std::string(lastPathComponent(track.path)) : track.filename;
    // One statement for the whole row: an insert followed by an update of
    // the same row costs a second index pass.
    Statement ins = conn_.cached(
        "INSERT INTO tracks(path, filename, title, artist, album, genre, duration_ms, "
        "filesize_bytes, date_added, date_created, production, year, comment, grouping, label, "
        "bitrate_kbps, samplerate_hz, file_type, bpm, key, album_artist, composer, track_number, "
        "track_count, disc_number, disc_count, compilation, sort_title, sort_artist, sort_album, "
        "sort_album_artist, sort_composer)\n"
        "VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
    ins.bind(1, track.path).bind(2, filename).bind(3, track.title).bind(4, track.artist);
    ins.bind(5, track.album).bind(6, track.genre).bind(7, track.durationMs);
    ins.bind(8, track.filesizeBytes).bind(9, track.dateAdded.value_or(unixNow()));
    ins.bind(10, track.dateCreated).bind(11, static_cast<int64_t>(track.production ? 1 : 0));
    ins.bind(12, track.year).bind(13, track.comment).bind(14, track.grouping);
    ins.bind(15, track.label).bind(16, track.bitrateKbps).bind(17, track.samplerateHz);
    // A tag's tempo outside what a track can have (0, -1, 9999) is a misread,
    // not a value to sort by.
    const std::optional<double> bpm = track.bpm && isTempo(*track.bpm) ? track.bpm : std::nullopt;
    ins.bind(18, track.fileType).bind(19, bpm).bind(20, track.key);
    ins.bind(21, track.albumArtist).bind(22, track.composer).bind(23, track.trackNumber);
    ins.bind(24, track.trackCount).bind(25, track.discNumber).bind(26, track.discCount);
    ins.bind(27,
             track.compilation ? std::optional<int64_t>(*track.compilation ? 1 : 0) : std::nullopt);
    ins.bind(28, track.sortTitle).bind(29, track.sortArtist).bind(30, track.sortAlbum);
    ins.bind(31, track.sortAlbumArtist).bind(32, track.sortComposer);
    if (ins.stepCode() != SQLITE_DONE) return conn_.lastStatus();
    id = conn_.lastInsertId();
  }
  Statement link =
      conn_.cached("INSERT OR IGNORE INTO track_sources(track_id, source_id) VALUES(?, ?)");
  if (link.bind(1, *id).bind(2, sourceId).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  if (Status kept = tx.commit(); !kept) return kept;
  if (outcome)
    *outcome = !foundRow ? ImportOutcome::inserted
                         : (removed ? ImportOutcome::reinstated : ImportOutcome::reused);
  return *id;
}

std::string TrackStore::columnFor(std::string_view key) {
  static const std::array<std::pair<std::string_view, std::string_view>, 24> kColumns{{
      {"albumartist", "album_artist"},
      {"tracknumber", "track_number"},
      {"discnumber", "disc_number"},
      {"albumrating", "album_rating"},
      {"samplerate", "samplerate_hz"},
      {"datemodified", "date_modified"},
      {"lastplayed", "last_played"},
      {"trackcount", "track_count"},
      {"disccount", "disc_count"},
      {"playcount", "play_count"},
      {"duration", "duration_ms"},
      {"bitrate", "bitrate_kbps"},
      {"size", "filesize_bytes"},
      {"dateadded", "date_added"},
      {"datecreated", "date_created"},
      {"sorttitle", "sort_title"},
      {"sortartist", "sort_artist"},
      {"sortalbum", "sort_album"},
      {"sortalbumartist", "sort_album_artist"},
      {"sortcomposer", "sort_composer"},
      {"releasedate", "release_date"},
      {"seratocolor", "serato_label"},
      {"filetype", "file_type"},
      {"volumeadjust", "volume_adjust"},
  }};
  std::string lowered(key);
  std::string folded;
  for (char& c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (char c : lowered)
    if (c != '_' && c != ' ' && c != '-') folded += c;
  for (const auto& [k, column] : kColumns)
    if (folded == k) return std::string(column);
  return lowered;
}

bool TrackStore::hasTrackColumn(std::string_view column) const {
  Statement st = conn_.prepare("SELECT 1 FROM pragma_table_info('tracks') WHERE name = ? LIMIT 1");
  st.bind(1, column);
  return st.step();
}

Result<std::string> TrackStore::setField(const std::string& column,
                                         const std::optional<std::string>& value,
                                         std::span<const int64_t> ids, const std::string& opName) {
  if (!hasTrackColumn(column)) {
    note("setField REFUSED: no tracks column named " + column + " (asked for " + opName + ")");
    return Status::invalid("no tracks column named " + column);
  }
  if (ids.empty()) return Status::invalid("no tracks to change");
  if (value)
    if (Status ok = checkTrackValue(conn_, column, column, *value); !ok) return ok;
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = journal_.begin(opName);
  if (Status j = journal_.recordCurrent(opId, opName, "tracks", ids, column, value); !j) return j;
  Statement up =
      conn_.prepare("UPDATE tracks SET " + column + " = ? WHERE id IN (" + joinIds(ids) + ")");
  up.bind(1, value);
  // On failure the transaction rolls back, journal entries included.
  if (up.stepCode() != SQLITE_DONE) return conn_.lastStatus();
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

Status TrackStore::writeField(const std::string& column, const std::optional<std::string>& value,
                              std::span<const int64_t> ids) {
  if (!hasTrackColumn(column)) {
    note("writeField REFUSED: no tracks column named " + column + " (nothing written)");
    return Status::invalid("no tracks column named " + column);
  }
  if (ids.empty()) return Status::ok();
  Statement up =
      conn_.prepare("UPDATE tracks SET " + column + " = ? WHERE id IN (" + joinIds(ids) + ")");
  up.bind(1, value);
  if (up.stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return Status::ok();
}

Result<std::string> TrackStore::setRating(std::span<const int64_t> ids, int stars) {
  const int clamped = std::clamp(stars, 0, 5);
  return setField("rating", std::to_string(clamped * 20), ids, "Set Rating");
}

Result<std::string> TrackStore::setLoved(std::span<const int64_t> ids, bool loved) {
  return setField("loved", loved ? "1" : "0", ids, loved ? "Love" : "Unlove");
}

Result<std::string> TrackStore::setDisliked(std::span<const int64_t> ids, bool disliked) {
  return setField("disliked", disliked ? "1" : "0", ids, disliked ? "Dislike" : "Clear Dislike");
}

Result<std::string> TrackStore::setMaster(std::span<const int64_t> ids, bool master) {
  return setField("master", master ? "1" : "0", ids, master ? "Mark as Master" : "Unmark Master");
}

std::vector<int64_t> TrackStore::lovedIds() const {
  return conn_.ids("SELECT id FROM tracks WHERE loved = 1");
}
std::vector<int64_t> TrackStore::dislikedIds() const {
  return conn_.ids("SELECT id FROM tracks WHERE disliked = 1");
}
std::vector<int64_t> TrackStore::masterIds() const {
  return conn_.ids("SELECT id FROM tracks WHERE master = 1");
}

Status TrackStore::setBPM(int64_t id, double bpm) {
  if (!isTempo(bpm))
    return Status::invalid(fmt::format("a tempo is {} to {} BPM", kMinBpm, kMaxBpm));
  Statement st = conn_.prepare("UPDATE tracks SET bpm=? WHERE id=?");
  if (st.bind(1, bpm).bind(2, id).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return Status::ok();
}

Status TrackStore::setDurationMs(int64_t id, int64_t ms) {
  Statement st = conn_.prepare("UPDATE tracks SET duration_ms=? WHERE id=?");
  if (st.bind(1, ms).bind(2, id).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return Status::ok();
}

Result<std::string> TrackStore::softRemove(std::span<const int64_t> ids) {
  if (ids.empty()) return Status::invalid("no tracks to remove");
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opName = "Remove from Library";
  const std::string opId = journal_.begin(opName);
  if (Status j = journal_.recordCurrent(opId, opName, "tracks", ids, "removed", "1"); !j) return j;
  if (Status s = conn_.exec("UPDATE tracks SET removed=1 WHERE id IN (" + joinIds(ids) + ")"); !s)
    return s;
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

Status TrackStore::markMissing(int64_t id) {
  return conn_.exec("UPDATE tracks SET file_missing=1 WHERE id=" + std::to_string(id));
}

bool TrackStore::hasTrack(std::string_view path) const {
  Statement st = conn_.prepare("SELECT 1 FROM tracks WHERE path_norm = ? LIMIT 1");
  st.bind(1, OrvelDB::normalizePath(path));
  return st.step();
}

std::optional<int64_t> TrackStore::liveTrackId(std::string_view path) const {
  static const std::string kSql =
      "SELECT id FROM tracks WHERE path_norm = ? AND " + std::string(kLiveTrack) + " LIMIT 1";
  Statement st = conn_.cached(kSql);
  st.bind(1, OrvelDB::normalizePath(path));
  if (!st.step()) return std::nullopt;
  return st.int64(0);
}

std::optional<int64_t> TrackStore::trackId(std::string_view path) const {
  Statement st = conn_.prepare("SELECT id FROM tracks WHERE path_norm = ? LIMIT 1");
  st.bind(1, OrvelDB::normalizePath(path));
  if (!st.step()) return std::nullopt;
  return st.int64(0);
}

std::vector<int64_t> TrackStore::existingIds(std::span<const int64_t> ids) const {
  if (ids.empty()) return {};
  const auto live = conn_.ids("SELECT id FROM tracks WHERE id IN (" + joinIds(ids) + ") AND " +
                              std::string(kLiveTrack));
  const std::unordered_set<int64_t> liveSet(live.begin(), live.end());
  std::vector<int64_t> out;
  for (int64_t id : ids)
    if (liveSet.contains(id)) out.push_back(id);
  return out;
}

std::vector<int64_t> TrackStore::idsWhereFieldEquals(const std::string& column,
                                                     std::string_view value) const {
  if (!plainIdentifier(column) || !hasTrackColumn(column)) return {};
  Statement st = conn_.prepare("SELECT id FROM tracks\nWHERE COALESCE(" + column +
                               ", '') = ? AND " + std::string(kLiveTrack));
  st.bind(1, value);
  std::vector<int64_t> out;
  while (st.step()) out.push_back(st.int64(0));
  return out;
}

std::vector<std::pair<std::string, int64_t>> TrackStore::valueCounts(
    const std::string& column) const {
  std::vector<std::pair<std::string, int64_t>> out;
  if (!plainIdentifier(column) || !hasTrackColumn(column)) return out;
  Statement st = conn_.prepare("SELECT COALESCE(" + column + ", ''), COUNT(*) FROM tracks\nWHERE " +
                               std::string(kLiveTrack) + "\nGROUP BY 1");
  while (st.step()) out.emplace_back(st.text(0), st.int64(1));
  return out;
}

std::vector<std::string> TrackStore::fieldValues(const std::string& column,
                                                 std::span<const int64_t> ids) const {
  std::vector<std::string> out;
  if (ids.empty() || !plainIdentifier(column) || !hasTrackColumn(column)) return out;
  Statement st = conn_.prepare("SELECT COALESCE(CAST(" + column +
                               " AS TEXT), '') FROM tracks WHERE id IN (" + joinIds(ids) + ")");
  while (st.step()) out.push_back(st.text(0));
  return out;
}

}  // namespace orvel
