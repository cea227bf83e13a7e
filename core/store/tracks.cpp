// Adding, loading and editing tracks. Every edit a user can undo is journaled.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <unordered_set>

#include "core/store/log.h"
#include "core/store/orvel_db.h"
#include "core/text/split.h"

namespace orvel {
namespace {

// The launch query. It runs over the whole library at start-up, so it selects
// exactly the fields a table column shows and nothing else: every column costs.
// Left out on purpose: category, cloud status, movement, description, purchase date.
constexpr std::string_view kTrackColumns = R"SQL(SELECT
  t.id,
  COALESCE(t.title, t.filename, ''),        -- the file name stands in for a missing title
  COALESCE(t.artist, ''), COALESCE(t.album, ''), COALESCE(t.genre, ''),
  t.bpm, COALESCE(t.key, ''), t.duration_ms, t.path, t.file_missing,
  (SELECT COUNT(*) FROM cues c WHERE c.track_id = t.id AND c.kind = 'cue'),  -- loops not counted
  COALESCE(t.filesize_bytes, 0), COALESCE(t.production, 0),
  COALESCE(t.year, ''), COALESCE(t.comment, ''), COALESCE(t.grouping, ''), COALESCE(t.label, ''),
  t.date_added, t.date_created, t.bitrate_kbps, t.play_count, t.rating,
  COALESCE(t.flags, -1),                    -- -1: never classified
  -- Extras
  COALESCE(t.album_artist, ''), COALESCE(t.compilation, 0), COALESCE(t.composer, ''),
  t.track_number, t.disc_number, t.samplerate_hz, t.album_rating, t.date_modified,
  t.last_played, t.last_skipped, t.skips, t.release_date, COALESCE(t.work, ''),
  COALESCE(t.equalizer, ''), COALESCE(t.serato_label, ''), COALESCE(t.music_pid, ''),
  COALESCE(t.sort_artist, ''), COALESCE(t.sort_album, ''), COALESCE(t.sort_album_artist, ''),
  COALESCE(t.has_video, -1)                 -- -1: not determined by looking inside the file
FROM tracks t
)SQL";

constexpr std::string_view kLiveOrder =
    "WHERE t.merged_into IS NULL AND COALESCE(t.removed, 0) = 0 ORDER BY t.date_added DESC, t.id "
    "DESC";

void assign(std::string& out, const Statement& st, int col) {
  const std::string_view v = st.textView(col);
  out.assign(v.data(), v.size());
}

void readTrack(const Statement& st, TrackRow& r) {
  r.id = st.int64(0);
  assign(r.title, st, 1);
  assign(r.artist, st, 2);
  assign(r.album, st, 3);
  assign(r.genre, st, 4);
  r.bpm = st.optReal(5);
  assign(r.key, st, 6);
  r.durationMs = st.optInt64(7);
  assign(r.path, st, 8);
  r.missing = st.int64(9) != 0;
  r.cueCount = st.int64(10);
  r.sizeBytes = st.int64(11);
  r.isProduction = st.int64(12) != 0;
  assign(r.year, st, 13);
  assign(r.comment, st, 14);
  assign(r.grouping, st, 15);
  assign(r.label, st, 16);
  r.dateAdded = st.optInt64(17);
  r.dateCreated = st.optInt64(18);
  r.bitrateKbps = st.optInt64(19);
  r.playCount = st.optInt64(20);
  r.rating = st.optInt64(21);
  r.flags = st.int64(22);
  auto& x = r.extras;
  assign(x.albumArtist, st, 23);
  x.compilation = st.int64(24);
  assign(x.composer, st, 25);
  x.trackNumber = st.optInt64(26);
  x.discNumber = st.optInt64(27);
  x.sampleRate = st.optInt64(28);
  x.albumRating = st.optInt64(29);
  x.dateModified = st.optInt64(30);
  x.lastPlayed = st.optInt64(31);
  x.lastSkipped = st.optInt64(32);
  x.skips = st.optInt64(33);
  x.releaseDate = st.optInt64(34);
  assign(x.work, st, 35);
  assign(x.equalizer, st, 36);
  assign(x.seratoColor, st, 37);
  assign(x.musicPID, st, 38);
  assign(x.sortArtist, st, 39);
  assign(x.sortAlbum, st, 40);
  assign(x.sortAlbumArtist, st, 41);
  x.hasVideo = st.int64(42);
}

bool plainIdentifier(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(),
                                   [](unsigned char c) { return std::isalnum(c) || c == '_'; });
}

constexpr std::string_view kLive = "merged_into IS NULL AND (removed IS NULL OR removed = 0)";

}  // namespace

std::string OrvelDB::launchQuery() {
  return std::string(kTrackColumns) + std::string(kLiveOrder);
}

std::vector<TrackRow> OrvelDB::loadAllTracks(std::optional<int64_t> limit) const {
  std::string sql = launchQuery();
  if (limit) sql += " LIMIT " + std::to_string(std::max<int64_t>(*limit, 0));
  Statement st = conn_.prepare(sql);
  std::vector<TrackRow> rows;
  const int64_t all = conn_.count("tracks");
  rows.reserve(static_cast<size_t>(limit ? std::clamp<int64_t>(*limit, 0, all) : all));
  while (st.step()) readTrack(st, rows.emplace_back());
  return rows;
}

std::optional<TrackRow> OrvelDB::loadTrack(int64_t id) const {
  Statement st = conn_.prepare(std::string(kTrackColumns) + "WHERE t.id = ?");
  st.bind(1, id);
  if (!st.step()) return std::nullopt;
  TrackRow row;
  readTrack(st, row);
  return row;
}

int64_t OrvelDB::orvelSourceId() {
  if (auto id = conn_.scalarInt("SELECT id FROM sources WHERE name = 'orvel' ORDER BY id LIMIT 1"))
    return *id;
  Statement st = conn_.prepare(
      "INSERT INTO sources(name, detail, imported_at) VALUES('orvel', 'drag-and-drop imports', ?)");
  if (st.bind(1, unixNow()).stepCode() != SQLITE_DONE) return 0;  // links to no source
  return conn_.lastInsertId();
}

std::optional<int64_t> OrvelDB::insertImported(const NewTrack& track, int64_t sourceId,
                                               ImportOutcome* outcome) {
  Transaction tx(conn_);
  const std::string key = normalizePath(track.path);
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
      if (!writeField("removed", std::nullopt, one) || !writeField("file_missing", "0", one))
        return std::nullopt;
    }
  } else {
    const std::string filename =
        track.filename.empty() ? std::string(lastPathComponent(track.path)) : track.filename;
    Statement ins = conn_.cached(
        "INSERT INTO tracks(path, filename, title, artist, album, genre, duration_ms, "
        "filesize_bytes,\n"
        "date_added, date_created, production) VALUES(?,?,?,?,?,?,?,?,?,?,?)");
    ins.bind(1, track.path).bind(2, filename).bind(3, track.title).bind(4, track.artist);
    ins.bind(5, track.album).bind(6, track.genre).bind(7, track.durationMs);
    ins.bind(8, track.filesizeBytes).bind(9, track.dateAdded.value_or(unixNow()));
    ins.bind(10, track.dateCreated).bind(11, static_cast<int64_t>(track.production ? 1 : 0));
    if (ins.stepCode() != SQLITE_DONE) return std::nullopt;
    id = conn_.lastInsertId();
    if (!writeImportedTags(*id, track)) return std::nullopt;
  }
  Statement link =
      conn_.cached("INSERT OR IGNORE INTO track_sources(track_id, source_id) VALUES(?, ?)");
  link.bind(1, *id).bind(2, sourceId).stepCode();
  if (!tx.commit()) return std::nullopt;
  if (outcome)
    *outcome = !foundRow ? ImportOutcome::inserted
                         : (removed ? ImportOutcome::reinstated : ImportOutcome::reused);
  return id;
}

bool OrvelDB::writeImportedTags(int64_t id, const NewTrack& t) {
  if (!t.year && !t.comment && !t.grouping && !t.label && !t.fileType && !t.key && !t.bitrateKbps &&
      !t.samplerateHz && !t.bpm)
    return true;
  Statement up = conn_.cached(
      "UPDATE tracks SET year=?, comment=?, grouping=?, label=?, bitrate_kbps=?, "
      "samplerate_hz=?, file_type=?, bpm=?, key=? WHERE id=?");
  up.bind(1, t.year).bind(2, t.comment).bind(3, t.grouping).bind(4, t.label);
  up.bind(5, t.bitrateKbps).bind(6, t.samplerateHz).bind(7, t.fileType).bind(8, t.bpm);
  up.bind(9, t.key).bind(10, id);
  return up.stepCode() == SQLITE_DONE;
}

std::string OrvelDB::columnFor(std::string_view key) {
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

bool OrvelDB::hasTrackColumn(std::string_view column) const {
  Statement st = conn_.prepare("SELECT 1 FROM pragma_table_info('tracks') WHERE name = ? LIMIT 1");
  st.bind(1, column);
  return st.step();
}

std::optional<std::string> OrvelDB::setField(const std::string& column,
                                             const std::optional<std::string>& value,
                                             std::span<const int64_t> ids,
                                             const std::string& opName) {
  if (!hasTrackColumn(column)) {
    note("setField REFUSED: no tracks column named " + column + " (asked for " + opName + ")");
    lastError_ = "no tracks column named " + column;
    return std::nullopt;
  }
  if (ids.empty()) return std::nullopt;
  Transaction tx(conn_);
  const std::string opId = journal_.begin(opName);
  journal_.recordCurrent(opId, opName, "tracks", ids, column, value);
  Statement up =
      conn_.prepare("UPDATE tracks SET " + column + " = ? WHERE id IN (" + joinIds(ids) + ")");
  up.bind(1, value);
  if (up.stepCode() != SQLITE_DONE) {
    lastError_ = conn_.errorMessage();
    return std::nullopt;  // the transaction rolls back, journal entries included
  }
  if (!tx.commit()) {
    lastError_ = "the change could not be saved";
    return std::nullopt;
  }
  notifyFieldWritten(column, value, ids);
  return opId;
}

bool OrvelDB::writeField(const std::string& column, const std::optional<std::string>& value,
                         std::span<const int64_t> ids) {
  if (!hasTrackColumn(column)) {
    note("writeField REFUSED: no tracks column named " + column + " (nothing written)");
    return false;
  }
  if (ids.empty()) return true;
  Statement up =
      conn_.prepare("UPDATE tracks SET " + column + " = ? WHERE id IN (" + joinIds(ids) + ")");
  up.bind(1, value);
  const bool ok = up.stepCode() == SQLITE_DONE;
  if (ok) notifyFieldWritten(column, value, ids);
  return ok;
}

std::optional<std::string> OrvelDB::setRating(std::span<const int64_t> ids, int stars) {
  const int clamped = std::clamp(stars, 0, 5);
  return setField("rating", std::to_string(clamped * 20), ids, "Set Rating");
}

std::optional<std::string> OrvelDB::setLoved(std::span<const int64_t> ids, bool loved) {
  return setField("loved", loved ? "1" : "0", ids, loved ? "Love" : "Unlove");
}

std::optional<std::string> OrvelDB::setDisliked(std::span<const int64_t> ids, bool disliked) {
  return setField("disliked", disliked ? "1" : "0", ids, disliked ? "Dislike" : "Clear Dislike");
}

std::optional<std::string> OrvelDB::setMaster(std::span<const int64_t> ids, bool master) {
  return setField("master", master ? "1" : "0", ids, master ? "Mark as Master" : "Unmark Master");
}

std::vector<int64_t> OrvelDB::lovedIds() const {
  return conn_.ids("SELECT id FROM tracks WHERE loved = 1");
}
std::vector<int64_t> OrvelDB::dislikedIds() const {
  return conn_.ids("SELECT id FROM tracks WHERE disliked = 1");
}
std::vector<int64_t> OrvelDB::masterIds() const {
  return conn_.ids("SELECT id FROM tracks WHERE master = 1");
}

void OrvelDB::setBPM(int64_t id, double bpm) {
  Statement st = conn_.prepare("UPDATE tracks SET bpm=? WHERE id=?");
  st.bind(1, bpm).bind(2, id).stepCode();
}

void OrvelDB::setDurationMs(int64_t id, int64_t ms) {
  Statement st = conn_.prepare("UPDATE tracks SET duration_ms=? WHERE id=?");
  st.bind(1, ms).bind(2, id).stepCode();
}

void OrvelDB::setAnalysis(int64_t id, const std::optional<std::string>& key,
                          std::optional<double> bpm) {
  if (key && !key->empty()) {
    Statement st = conn_.prepare("UPDATE tracks SET key=? WHERE id=? AND (key IS NULL OR key='')");
    st.bind(1, *key).bind(2, id).stepCode();
  }
  if (bpm) {
    // fmt writes the shortest text that reads back as the same double.
    conn_.execIgnoring(
        fmt::format("UPDATE tracks SET bpm={} WHERE id={} AND bpm IS NULL", *bpm, id));
  }
}

std::optional<std::string> OrvelDB::softRemove(std::span<const int64_t> ids) {
  // The column may be missing on a catalogue that skipped the upgrade.
  conn_.execIgnoring("ALTER TABLE tracks ADD COLUMN removed INTEGER");
  if (ids.empty()) return std::nullopt;
  Transaction tx(conn_);
  const std::string opName = "Remove from Library";
  const std::string opId = journal_.begin(opName);
  journal_.recordCurrent(opId, opName, "tracks", ids, "removed", "1");
  if (auto err =
          conn_.execChecked("UPDATE tracks SET removed=1 WHERE id IN (" + joinIds(ids) + ")")) {
    lastError_ = *err;
    return std::nullopt;
  }
  if (!tx.commit()) return std::nullopt;
  notifyFieldWritten("removed", "1", ids);
  return opId;
}

void OrvelDB::markMissing(int64_t id) {
  conn_.execIgnoring("UPDATE tracks SET file_missing=1 WHERE id=" + std::to_string(id));
}

bool OrvelDB::hasTrack(std::string_view path) const {
  Statement st = conn_.prepare("SELECT 1 FROM tracks WHERE path_norm = ? LIMIT 1");
  st.bind(1, normalizePath(path));
  return st.step();
}

std::optional<int64_t> OrvelDB::liveTrackId(std::string_view path) const {
  Statement st = conn_.cached(
      "SELECT id FROM tracks WHERE path_norm = ? AND merged_into IS NULL AND "
      "coalesce(removed,0) = 0 LIMIT 1");
  st.bind(1, normalizePath(path));
  if (!st.step()) return std::nullopt;
  return st.int64(0);
}

std::optional<int64_t> OrvelDB::trackId(std::string_view path) const {
  Statement st = conn_.prepare("SELECT id FROM tracks WHERE path_norm = ? LIMIT 1");
  st.bind(1, normalizePath(path));
  if (!st.step()) return std::nullopt;
  return st.int64(0);
}

std::optional<std::string> OrvelDB::findByTags(std::string_view artist,
                                               std::string_view title) const {
  Statement st = conn_.prepare(
      "SELECT path FROM tracks WHERE artist=? COLLATE NOCASE AND title=? COLLATE NOCASE AND "
      "merged_into IS NULL LIMIT 1");
  st.bind(1, artist).bind(2, title);
  if (!st.step()) return std::nullopt;
  return st.text(0);
}

std::vector<int64_t> OrvelDB::existingIds(std::span<const int64_t> ids) const {
  if (ids.empty()) return {};
  const auto live = conn_.ids("SELECT id FROM tracks WHERE id IN (" + joinIds(ids) + ") AND " +
                              std::string(kLive));
  const std::unordered_set<int64_t> liveSet(live.begin(), live.end());
  std::vector<int64_t> out;
  for (int64_t id : ids)
    if (liveSet.contains(id)) out.push_back(id);
  return out;
}

std::vector<int64_t> OrvelDB::idsWhere(const std::string& condition, int64_t limit) const {
  return conn_.ids("SELECT id FROM tracks WHERE (" + condition + ") AND " + std::string(kLive) +
                   " LIMIT " + std::to_string(limit));
}

std::vector<int64_t> OrvelDB::idsWhereFieldEquals(const std::string& column,
                                                  std::string_view value) const {
  if (!plainIdentifier(column) || !hasTrackColumn(column)) return {};
  Statement st = conn_.prepare("SELECT id FROM tracks\nWHERE COALESCE(" + column +
                               ", '') = ? AND " + std::string(kLive));
  st.bind(1, value);
  std::vector<int64_t> out;
  while (st.step()) out.push_back(st.int64(0));
  return out;
}

std::vector<std::pair<std::string, int64_t>> OrvelDB::valueCounts(const std::string& column) const {
  std::vector<std::pair<std::string, int64_t>> out;
  if (!plainIdentifier(column) || !hasTrackColumn(column)) return out;
  Statement st = conn_.prepare("SELECT COALESCE(" + column + ", ''), COUNT(*) FROM tracks\nWHERE " +
                               std::string(kLive) + "\nGROUP BY 1");
  while (st.step()) out.emplace_back(st.text(0), st.int64(1));
  return out;
}

std::vector<std::string> OrvelDB::fieldValues(const std::string& column,
                                              std::span<const int64_t> ids) const {
  std::vector<std::string> out;
  if (ids.empty() || !plainIdentifier(column) || !hasTrackColumn(column)) return out;
  Statement st = conn_.prepare("SELECT COALESCE(CAST(" + column +
                               " AS TEXT), '') FROM tracks WHERE id IN (" + joinIds(ids) + ")");
  while (st.step()) out.push_back(st.text(0));
  return out;
}

std::vector<PurgeRow> OrvelDB::purgeRows() const {
  static const std::unordered_set<std::string> kLossless = {"flac", "wav",  "wave", "aif",
                                                            "aiff", "alac", "caf"};
  std::vector<PurgeRow> out;
  Statement st = conn_.prepare(
      "SELECT t.id, t.path, COALESCE(t.artist, ''), COALESCE(t.title, t.filename, ''),\n"
      "       t.bitrate_kbps, COALESCE(t.filesize_bytes, 0), t.file_missing,\n"
      "       COALESCE(t.production, 0), LOWER(COALESCE(t.file_type, '')),\n"
      "       EXISTS(SELECT 1 FROM playlist_tracks pt WHERE pt.track_id = t.id),\n"
      "       (SELECT COUNT(*) FROM cues c WHERE c.track_id = t.id)\n"
      "FROM tracks t WHERE t.merged_into IS NULL AND COALESCE(t.removed, 0) = 0");
  while (st.step()) {
    PurgeRow r;
    r.id = st.int64(0);
    r.path = st.text(1);
    r.artist = st.text(2);
    r.title = st.text(3);
    r.bitrate = st.optInt64(4);
    r.bytes = st.int64(5);
    r.missing = st.int64(6) != 0;
    r.isProduction = st.int64(7) != 0;
    std::string kind = st.text(8);
    if (kind.empty()) kind = extensionOf(r.path);
    r.isLossless = kLossless.contains(kind);
    r.inAnyPlaylist = st.int64(9) != 0;
    r.cueCount = st.int64(10);
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<ArtistAlbumGenre> OrvelDB::artistAlbumGenreRows() const {
  std::vector<ArtistAlbumGenre> out;
  Statement st = conn_.prepare(
      "SELECT id, COALESCE(artist, ''), COALESCE(album, ''), COALESCE(genre, '') FROM tracks\n"
      "WHERE " +
      std::string(kLive));
  while (st.step()) out.push_back({st.int64(0), st.text(1), st.text(2), st.text(3)});
  return out;
}

}  // namespace orvel
