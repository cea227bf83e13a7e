// The catalogue's schema and its numbered migrations, keyed on
// `PRAGMA user_version`. Opening an up-to-date catalogue writes nothing at
// all (no DDL, no log line), so a reader never waits on a writer and a backup
// opened to look at stays byte for byte as it was.
//
//   0 → 1  the historical upgrade: the rebuild that drops the old UNIQUE on
//          `path`, every table and column added over the years (each ALTER
//          idempotent, its error ignored), and the one-time path-key repair.
//   1 → 2  the tables that used to be made on first use (history, defects,
//          smart playlists, release fields, tags) and the history's row index.
//
// Each migration runs in one transaction and re-reads the version inside it,
// so two processes opening an old catalogue at once upgrade it once.
#include <fmt/format.h>

#include "core/store/log.h"
#include "core/store/orvel_db.h"

namespace orvel {
namespace {

// Every column of `tracks` that a fresh catalogue has is in its CREATE text:
// the rebuild that drops the old UNIQUE copies the table from its stored
// CREATE text, so a column missing there would be lost by a rebuild. The same
// list is added column by column to older catalogues whose CREATE predates
// some of them, so every catalogue ends with the whole set.
constexpr const char* kTrackColumns[] = {
    "id INTEGER PRIMARY KEY",
    "path TEXT NOT NULL",  // unique among live rows through idx_tracks_path_norm_unique
    "filename TEXT", "title TEXT", "artist TEXT", "album TEXT", "genre TEXT", "comment TEXT",
    "grouping TEXT", "label TEXT", "year TEXT", "bpm REAL", "key TEXT", "duration_ms INTEGER",
    "bitrate_kbps INTEGER", "samplerate_hz INTEGER", "filesize_bytes INTEGER", "file_type TEXT",
    "date_added INTEGER", "fingerprint TEXT", "energy INTEGER", "rating INTEGER",
    "play_count INTEGER", "file_missing INTEGER NOT NULL DEFAULT 0",
    "merged_into INTEGER REFERENCES tracks(id)",
    // every column Apple Music offers has a home
    "equalizer TEXT", "album_artist TEXT", "composer TEXT", "track_number INTEGER",
    "disc_number INTEGER", "last_played INTEGER", "last_skipped INTEGER", "skips INTEGER",
    "purchase_date INTEGER", "release_date INTEGER", "date_modified INTEGER",
    "album_rating INTEGER", "sort_title TEXT", "sort_artist TEXT", "sort_album TEXT",
    "sort_album_artist TEXT", "sort_composer TEXT", "work TEXT", "movement_name TEXT",
    "movement_number INTEGER", "description TEXT", "category TEXT", "cloud_status TEXT"};

std::string tracksCreate() {
  std::string sql = "CREATE TABLE IF NOT EXISTS tracks (\n  ";
  for (size_t i = 0; i < std::size(kTrackColumns); ++i) {
    if (i != 0) sql += ",\n  ";
    sql += kTrackColumns[i];
  }
  return sql + "\n);";
}

constexpr const char* kSourcesCreate = R"SQL(
CREATE TABLE IF NOT EXISTS sources (
  id          INTEGER PRIMARY KEY,
  name        TEXT NOT NULL,          -- serato, rekordbox, itunes, orvel, music, studio, desk
  detail      TEXT,                   -- version string or library path
  imported_at INTEGER NOT NULL
);
)SQL";

// The base tables after `sources` and `tracks`, and their first indexes.
constexpr const char* kBaseScript = R"SQL(
CREATE TABLE IF NOT EXISTS track_sources (
  track_id  INTEGER NOT NULL REFERENCES tracks(id),
  source_id INTEGER NOT NULL REFERENCES sources(id),
  PRIMARY KEY (track_id, source_id)
);
CREATE TABLE IF NOT EXISTS cues (
  id          INTEGER PRIMARY KEY,
  track_id    INTEGER NOT NULL REFERENCES tracks(id),
  source_id   INTEGER REFERENCES sources(id),   -- NULL: authored in Orvel
  bank        TEXT NOT NULL,                    -- hot | memory
  idx         INTEGER NOT NULL,
  position_ms REAL NOT NULL,
  length_ms   REAL,                             -- loops only
  color       TEXT,
  name        TEXT,
  kind        TEXT NOT NULL DEFAULT 'cue'       -- cue | loop
);
CREATE TABLE IF NOT EXISTS beatgrids (
  track_id     INTEGER NOT NULL REFERENCES tracks(id),
  source_id    INTEGER REFERENCES sources(id),
  anchors_json TEXT NOT NULL,
  PRIMARY KEY (track_id, source_id)
);
CREATE TABLE IF NOT EXISTS playlists (
  id         INTEGER PRIMARY KEY,
  source_id  INTEGER REFERENCES sources(id),
  parent_id  INTEGER REFERENCES playlists(id),
  name       TEXT NOT NULL,
  kind       TEXT NOT NULL DEFAULT 'crate',     -- crate | playlist | smart
  sort_order INTEGER
);
CREATE TABLE IF NOT EXISTS playlist_tracks (
  playlist_id INTEGER NOT NULL REFERENCES playlists(id),
  track_id    INTEGER NOT NULL REFERENCES tracks(id),
  position    INTEGER NOT NULL,
  PRIMARY KEY (playlist_id, track_id, position)
);
CREATE INDEX IF NOT EXISTS idx_tracks_artist ON tracks(artist);
CREATE INDEX IF NOT EXISTS idx_tracks_title  ON tracks(title);
CREATE INDEX IF NOT EXISTS idx_tracks_bpm    ON tracks(bpm);
CREATE INDEX IF NOT EXISTS idx_tracks_key    ON tracks(key);
CREATE INDEX IF NOT EXISTS idx_pt_track      ON playlist_tracks(track_id);
)SQL";

// The upgrade after the base script, in order. Each runs with its error ignored.
// Multi-line statements are adjacent literals on purpose.
// NOLINTBEGIN(bugprone-suspicious-missing-comma)
constexpr const char* kUpgradeSteps[] = {
    // track_fingerprints
    "CREATE TABLE IF NOT EXISTS track_fingerprints(track_id INTEGER PRIMARY KEY REFERENCES "
    "tracks(id), fp_raw BLOB)",
    // removal, colours, video, flags
    "ALTER TABLE tracks ADD COLUMN removed INTEGER",
    "ALTER TABLE playlists ADD COLUMN color TEXT",
    "ALTER TABLE tracks ADD COLUMN video_url TEXT",
    "ALTER TABLE tracks ADD COLUMN loved INTEGER",
    "CREATE INDEX IF NOT EXISTS idx_tracks_loved ON tracks(loved) WHERE loved = 1",
    "ALTER TABLE tracks ADD COLUMN disliked INTEGER",
    "CREATE INDEX IF NOT EXISTS idx_tracks_disliked ON tracks(disliked) WHERE disliked = 1",
    "ALTER TABLE tracks ADD COLUMN studio_status TEXT",
    "ALTER TABLE tracks ADD COLUMN studio_note TEXT",
    "ALTER TABLE tracks ADD COLUMN master INTEGER",
    // the two fixed sources
    "INSERT OR IGNORE INTO sources(id, name, imported_at) VALUES(5, 'studio', "
    "strftime('%s','now'))",
    "INSERT OR IGNORE INTO sources(id, name, imported_at) VALUES(7, 'desk', strftime('%s','now'))",
    // options, waveforms, plays
    "CREATE TABLE IF NOT EXISTS track_options(track_id INTEGER PRIMARY KEY REFERENCES tracks(id) "
    "ON DELETE CASCADE, json TEXT NOT NULL)",
    "CREATE TABLE IF NOT EXISTS waveforms(track_id INTEGER PRIMARY KEY REFERENCES tracks(id), "
    "peaks BLOB NOT NULL)",
    "CREATE TABLE IF NOT EXISTS play_history(id INTEGER PRIMARY KEY AUTOINCREMENT, track_id "
    "INTEGER NOT NULL, at INTEGER NOT NULL)",
    "CREATE INDEX IF NOT EXISTS idx_play_history_at ON play_history(at DESC)",
    // Apple Music ids
    "ALTER TABLE tracks ADD COLUMN music_pid TEXT",
    "CREATE INDEX IF NOT EXISTS idx_tracks_music_pid ON tracks(music_pid)",
    "ALTER TABLE tracks ADD COLUMN music_dbid INTEGER",
    "ALTER TABLE playlists ADD COLUMN music_pid TEXT",
    "CREATE INDEX IF NOT EXISTS idx_playlists_music_pid ON playlists(music_pid)",
    // classification, lyrics, release data
    "ALTER TABLE tracks ADD COLUMN rating_kind TEXT",
    "ALTER TABLE tracks ADD COLUMN flags INTEGER",
    "ALTER TABLE tracks ADD COLUMN production INTEGER",
    "ALTER TABLE tracks ADD COLUMN date_created INTEGER",
    "ALTER TABLE tracks ADD COLUMN has_artwork INTEGER",
    "ALTER TABLE tracks ADD COLUMN lyrics TEXT",
    "ALTER TABLE tracks ADD COLUMN lyrics_synced TEXT",
    "ALTER TABLE tracks ADD COLUMN lyrics_source TEXT",
    "ALTER TABLE tracks ADD COLUMN lyrics_checked_at INTEGER",
    "ALTER TABLE tracks ADD COLUMN lyrics_written_at INTEGER",
    "ALTER TABLE tracks ADD COLUMN isrc TEXT",
    "ALTER TABLE tracks ADD COLUMN serato_label TEXT",
    // lookup indexes
    "CREATE INDEX IF NOT EXISTS idx_cues_track ON cues(track_id)",
    "CREATE INDEX IF NOT EXISTS idx_tracks_filename ON tracks(filename)",
    "CREATE INDEX IF NOT EXISTS idx_tracks_artist_title ON tracks(artist, title)",
    "CREATE INDEX IF NOT EXISTS idx_tracks_date_added ON tracks(date_added)",
    "CREATE INDEX IF NOT EXISTS idx_beatgrids_track ON beatgrids(track_id)",
    // the rest of the Apple Music columns
    "ALTER TABLE tracks ADD COLUMN track_count INTEGER",
    "ALTER TABLE tracks ADD COLUMN disc_count INTEGER",
    "ALTER TABLE tracks ADD COLUMN movement_count INTEGER",
    "ALTER TABLE tracks ADD COLUMN volume_adjust INTEGER",
    "ALTER TABLE tracks ADD COLUMN start_s REAL",
    "ALTER TABLE tracks ADD COLUMN finish_s REAL",
    "ALTER TABLE tracks ADD COLUMN kind TEXT",
    "ALTER TABLE tracks ADD COLUMN media_kind TEXT",
    "ALTER TABLE tracks ADD COLUMN enabled INTEGER",
    "ALTER TABLE tracks ADD COLUMN compilation INTEGER",
    "ALTER TABLE tracks ADD COLUMN artwork_count INTEGER",
    "ALTER TABLE tracks ADD COLUMN has_video INTEGER",
    "ALTER TABLE tracks ADD COLUMN video_width INTEGER",
    "ALTER TABLE tracks ADD COLUMN video_height INTEGER",
    "ALTER TABLE tracks ADD COLUMN explicit INTEGER",
    "ALTER TABLE tracks ADD COLUMN purchased INTEGER",
    "ALTER TABLE tracks ADD COLUMN protected INTEGER",
    "ALTER TABLE tracks ADD COLUMN gapless INTEGER",
    "ALTER TABLE tracks ADD COLUMN normalization INTEGER",
    "ALTER TABLE tracks ADD COLUMN rating_computed INTEGER",
    "ALTER TABLE tracks ADD COLUMN album_rating_computed INTEGER",
    // Apple Music smart playlists
    "ALTER TABLE playlists ADD COLUMN smart_criteria BLOB",
    "ALTER TABLE playlists ADD COLUMN smart_info BLOB",
    "CREATE TABLE IF NOT EXISTS music_readds(track_id INTEGER PRIMARY KEY, at INTEGER NOT NULL)",
    // the path key
    "ALTER TABLE tracks ADD COLUMN path_norm TEXT",
    "CREATE INDEX IF NOT EXISTS idx_tracks_path_norm ON tracks(path_norm)",
    // The first form of the triggers (on SQLite's ASCII-only lower) stays in
    // the sequence so that a catalogue of any age passes through the same
    // states; the final form below replaces it on every open.
    "CREATE TRIGGER IF NOT EXISTS trg_tracks_path_norm_ins AFTER INSERT ON tracks WHEN "
    "NEW.path_norm IS NULL\n"
    "BEGIN UPDATE tracks SET path_norm = lower(NEW.path) WHERE id = NEW.id; END;",
    "CREATE TRIGGER IF NOT EXISTS trg_tracks_path_norm_upd AFTER UPDATE OF path ON tracks\n"
    "BEGIN UPDATE tracks SET path_norm = lower(NEW.path) WHERE id = NEW.id; END;",
    "DROP TRIGGER IF EXISTS trg_tracks_path_norm_ins",
    "DROP TRIGGER IF EXISTS trg_tracks_path_norm_upd",
    "CREATE TRIGGER trg_tracks_path_norm_ins AFTER INSERT ON tracks WHEN NEW.path_norm IS NULL\n"
    "BEGIN UPDATE tracks SET path_norm = orvel_norm(NEW.path) WHERE id = NEW.id; END;",
    "CREATE TRIGGER trg_tracks_path_norm_upd AFTER UPDATE OF path ON tracks\n"
    "BEGIN UPDATE tracks SET path_norm = orvel_norm(NEW.path) WHERE id = NEW.id; END;",
    // Fails (and is retried on the next open) while live rows share a key.
    "CREATE UNIQUE INDEX IF NOT EXISTS idx_tracks_path_norm_unique ON tracks(path_norm)\n"
    "WHERE path_norm IS NOT NULL AND merged_into IS NULL AND coalesce(removed,0)=0",
};
// NOLINTEND(bugprone-suspicious-missing-comma)

// The tables other stores once made on first use; now every table exists
// once the catalogue is open.
constexpr const char* kVersion2Script = R"SQL(
CREATE TABLE IF NOT EXISTS history(
  id INTEGER PRIMARY KEY, op_id TEXT NOT NULL, op_name TEXT NOT NULL, entity TEXT NOT NULL,
  entity_id INTEGER NOT NULL, field TEXT NOT NULL, old_value TEXT, new_value TEXT,
  at INTEGER NOT NULL, undone INTEGER NOT NULL DEFAULT 0);
CREATE INDEX IF NOT EXISTS idx_history_op ON history(op_id);
CREATE INDEX IF NOT EXISTS idx_history_at ON history(at DESC);
CREATE INDEX IF NOT EXISTS idx_history_rows ON history(entity, entity_id) WHERE field = '@row';
CREATE TABLE IF NOT EXISTS release_fields(track_id INTEGER PRIMARY KEY, isrc TEXT, upc TEXT,
  publisher TEXT, composer TEXT, explicit INTEGER);
CREATE TABLE IF NOT EXISTS track_tags(track_id INTEGER NOT NULL, tag TEXT NOT NULL,
  at INTEGER NOT NULL, PRIMARY KEY(track_id, tag));
CREATE INDEX IF NOT EXISTS idx_track_tags_tag ON track_tags(tag);
CREATE TABLE IF NOT EXISTS smart_playlists(
  playlist_id INTEGER PRIMARY KEY, rules_json TEXT NOT NULL, live INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS defects(id INTEGER PRIMARY KEY, track_id INTEGER NOT NULL,
  kind TEXT NOT NULL, position_ms REAL NOT NULL, severity REAL NOT NULL);
CREATE INDEX IF NOT EXISTS ix_defects_track ON defects(track_id);
CREATE TABLE IF NOT EXISTS defect_status(track_id INTEGER PRIMARY KEY, status TEXT NOT NULL,
  at INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS defect_scans(track_id INTEGER PRIMARY KEY, scanned_at INTEGER NOT NULL,
  found INTEGER NOT NULL);
)SQL";

// Undo looks up, for each value it puts back, whether a later operation
// changed the same field of the same row, and what an earlier one left there.
constexpr const char* kVersion3Script =
    "CREATE INDEX IF NOT EXISTS idx_history_entity ON history(entity, entity_id, field)";

}  // namespace

void OrvelDB::migrate() {
  // Another program's database given by mistake (orvel --db photos.db) must
  // not be converted into a catalogue: tables added, its own altered, its
  // journal mode changed. An empty file is a new catalogue.
  if (!isCatalogueOrEmpty())
    throw StoreError(
        "this is not an Orvel catalogue (it has no tracks table with a path column); it was "
        "left as it was");
  if (userVersion() >= kSchemaVersion) {
    retryPathIndex();
    return;
  }
  if (conn_.mode() == OpenMode::readOnly)
    throw StoreError("the catalogue needs an upgrade; open it once with write access");
  conn_.execIgnoring("PRAGMA journal_mode=WAL");
  // A catalogue from before the path key had a UNIQUE on `path`; the rebuild
  // toggles pragmas that do nothing inside a transaction, so it runs first.
  if (userVersion() < 1 && hasTable("tracks")) dropPathUniqueConstraint();
  for (const auto& [version, step] :
       {std::pair{1, &OrvelDB::upgradeToVersion1}, std::pair{2, &OrvelDB::upgradeToVersion2},
        std::pair{3, &OrvelDB::upgradeToVersion3}}) {
    if (userVersion() >= version) continue;
    Transaction tx(conn_);
    if (!tx) throw StoreError("cannot upgrade the catalogue: " + tx.status().message());
    if (userVersion() >= version) continue;  // another process did it meanwhile
    Status done = (this->*step)();
    if (done) done = conn_.exec("PRAGMA user_version = " + std::to_string(version));
    if (done) done = tx.commit();
    if (!done) throw StoreError("cannot upgrade the catalogue: " + done.message());
  }
}

Status OrvelDB::upgradeToVersion1() {
  conn_.execIgnoring(kSourcesCreate + tracksCreate());
  // Before the base indexes: an index on a column an old catalogue lacks
  // would stop the rest of the script.
  for (size_t i = 2; i < std::size(kTrackColumns); ++i)
    conn_.execIgnoring(std::string("ALTER TABLE tracks ADD COLUMN ") + kTrackColumns[i]);
  conn_.execIgnoring(kBaseScript);
  for (const char* step : kUpgradeSteps) conn_.execIgnoring(step);
  const auto [rewritten, collided] = repairPathNorm();
  if (rewritten + collided >= 1)
    note(
        fmt::format("path_norm repair: {} rewritten, {} left as they were (another live row has "
                    "that file)",
                    rewritten, collided));
  return Status::ok();
}

Status OrvelDB::upgradeToVersion2() {
  return conn_.exec(kVersion2Script);
}

Status OrvelDB::upgradeToVersion3() {
  return conn_.exec(kVersion3Script);
}

void OrvelDB::retryPathIndex() {
  // The unique path index could not be made while two live rows shared a
  // key. Once they no longer do, make it; until then opening stays a read.
  if (conn_.mode() == OpenMode::readOnly || hasIndex("idx_tracks_path_norm_unique") ||
      !hasTable("tracks") || !pathNormCollisions().empty())
    return;
  Transaction tx(conn_);
  if (!tx) return;
  conn_.execIgnoring(kUpgradeSteps[std::size(kUpgradeSteps) - 1]);
  (void)tx.commit();
}

bool OrvelDB::isCatalogueOrEmpty() const {
  if (conn_.scalarInt("SELECT COUNT(*) FROM sqlite_master").value_or(0) == 0) return true;
  return conn_.scalarInt("SELECT COUNT(*) FROM pragma_table_info('tracks') WHERE name = 'path'")
             .value_or(0) == 1;
}

bool OrvelDB::hasTable(std::string_view name) const {
  Statement st = conn_.prepare("SELECT 1 FROM sqlite_master WHERE type='table' AND name=?");
  st.bind(1, name);
  return st.step();
}

int64_t OrvelDB::userVersion() const {
  return conn_.scalarInt("PRAGMA user_version").value_or(0);
}

bool OrvelDB::hasIndex(std::string_view name) const {
  Statement st = conn_.prepare("SELECT 1 FROM sqlite_master WHERE type='index' AND name=?");
  st.bind(1, name);
  return st.step();
}

void OrvelDB::dropPathUniqueConstraint() {
  std::string definition;
  {
    Statement st =
        conn_.prepare("SELECT sql FROM sqlite_master WHERE type='table' AND name='tracks'");
    if (st.step()) definition = st.text(0);
  }
  if (definition.empty()) {
    note("tracks: cannot read the table definition — rebuild skipped");
    return;
  }
  constexpr std::string_view kOld = "path TEXT NOT NULL UNIQUE";
  const auto at = definition.find(kOld);
  if (at == std::string::npos) {
    note("tracks: no UNIQUE on path — nothing to rebuild");
    return;
  }
  std::string rebuilt = definition;
  rebuilt.replace(at, kOld.size(), "path TEXT NOT NULL");
  for (std::string_view prefix : {"CREATE TABLE IF NOT EXISTS tracks", "CREATE TABLE tracks"}) {
    if (rebuilt.compare(0, prefix.size(), prefix) == 0) {
      rebuilt.replace(0, prefix.size(), "CREATE TABLE tracks_rebuild");
      break;
    }
  }

  const int64_t rows = conn_.count("tracks");
  note(fmt::format("tracks: dropping the UNIQUE on path, rebuilding {} rows\n", rows));
  conn_.execIgnoring("PRAGMA foreign_keys=off");
  conn_.execIgnoring("PRAGMA legacy_alter_table=on");

  if (auto err = conn_.execChecked("DROP TABLE IF EXISTS tracks_rebuild")) {
    note("tracks: could not clear a previous attempt — " + *err);
    conn_.execIgnoring("PRAGMA legacy_alter_table=off");
    conn_.execIgnoring("PRAGMA foreign_keys=on");
    return;
  }

  std::string failedStep;
  std::string error;
  const auto run = [&](const char* step, const std::string& sql) {
    if (!failedStep.empty()) return;
    if (auto err = conn_.execChecked(sql)) {
      failedStep = step;
      error = *err;
    }
  };
  run("BEGIN", "BEGIN IMMEDIATE");
  run("CREATE", rebuilt);
  run("INSERT", "INSERT INTO tracks_rebuild SELECT * FROM tracks");
  if (failedStep.empty()) {
    const int64_t copied = conn_.count("tracks_rebuild");
    if (copied != rows) {
      failedStep = "row count";
      error = fmt::format("copied {} of {}", copied, rows);
    }
  }
  run("DROP", "DROP TABLE tracks");
  run("RENAME", "ALTER TABLE tracks_rebuild RENAME TO tracks");
  run("COMMIT", "COMMIT");

  if (failedStep.empty()) {
    conn_.execIgnoring("PRAGMA legacy_alter_table=off");
    conn_.execIgnoring("PRAGMA foreign_keys=on");
    note(fmt::format("tracks: rebuilt, {} rows kept\n", rows));
    return;
  }
  conn_.execIgnoring("ROLLBACK");
  conn_.execIgnoring("PRAGMA legacy_alter_table=off");
  conn_.execIgnoring("PRAGMA foreign_keys=on");
  note(fmt::format("tracks: rebuild FAILED at {}: {}; table left untouched\n", failedStep, error));
}

std::pair<int64_t, int64_t> OrvelDB::repairPathNorm() {
  std::vector<std::pair<int64_t, std::string>> rows;
  {
    Statement st = conn_.prepare(
        "SELECT id, path FROM tracks WHERE path IS NOT NULL AND path_norm IS NOT orvel_norm(path)");
    while (st.step()) rows.emplace_back(st.int64(0), st.text(1));
  }
  if (rows.empty()) return {0, 0};
  int64_t rewritten = 0;
  int64_t collided = 0;
  Transaction tx(conn_);
  if (!tx) return {0, 0};
  {
    Statement up = conn_.prepare("UPDATE tracks SET path_norm = ? WHERE id = ?");
    for (const auto& [id, path] : rows) {
      up.reset();
      up.bind(1, normalizePath(path)).bind(2, id);
      if (up.stepCode() == SQLITE_DONE)
        ++rewritten;
      else
        ++collided;  // the unique index refused a key another live row holds
    }
  }
  if (!tx.commit()) return {0, 0};
  return {rewritten, collided};
}

std::vector<std::pair<std::string, int64_t>> OrvelDB::pathNormCollisions() const {
  std::vector<std::pair<std::string, int64_t>> out;
  Statement st = conn_.prepare(
      "SELECT path_norm, COUNT(*) c FROM tracks\n"
      "WHERE path_norm IS NOT NULL AND merged_into IS NULL AND coalesce(removed,0)=0\n"
      "GROUP BY path_norm HAVING c > 1 ORDER BY c DESC");
  while (st.step()) out.emplace_back(st.text(0), st.int64(1));
  return out;
}

}  // namespace orvel
