// The catalogue store: one SQLite database, `orvel.db`. OrvelDB opens it,
// brings its schema up to date (an up-to-date catalogue is opened without a
// single write), and owns the connection, the Journal and the Snapshots; the
// operations live in areas that share them: tracks(), trackData(),
// analysis(), playlists(), cues(), smart(), serato().
//
// Opening is the only operation that throws (StoreError). Reads report SQL
// faults as empty results (plus the "SQL WOULD NOT COMPILE: " line on
// stderr); writes return a Status or Result that says why they failed, and
// leave the catalogue as it was.
//
// Threads: an OrvelDB, its areas and its connection belong to the thread
// that opened it (debug builds assert this). A worker opens its own OrvelDB
// on the same file, with OpenMode::readOnly when it only reads. Every
// committed change is published to the connection's listeners (see
// change_feed.h) on the owner thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/store/analysis_store.h"
#include "core/store/connection.h"
#include "core/store/cue_store.h"
#include "core/store/journal.h"
#include "core/store/playlist_store.h"
#include "core/store/serato_store.h"
#include "core/store/smart_store.h"
#include "core/store/snapshots.h"
#include "core/store/track_data_store.h"
#include "core/store/track_store.h"

namespace orvel {

// Either the ids a SELECT produced or why it was refused.
struct IdsOrError {
  std::vector<int64_t> ids;
  std::optional<std::string> error;
};

class OrvelDB {
 public:
  // The schema version an up-to-date catalogue has in `PRAGMA user_version`.
  static constexpr int64_t kSchemaVersion = 3;

  // Opens the catalogue; read-write creates it when missing and upgrades an
  // older one. Read-only refuses a catalogue that needs an upgrade. Another
  // program's SQLite database is refused and left untouched. Throws
  // StoreError.
  explicit OrvelDB(const std::string& path, OpenMode mode = OpenMode::readWrite);
  OrvelDB(const OrvelDB&) = delete;
  OrvelDB& operator=(const OrvelDB&) = delete;
  ~OrvelDB();

  const std::string& path() const { return path_; }
  const Connection& connection() const { return conn_; }
  sqlite3* handle() const { return conn_.handle(); }
  Journal& journal() { return journal_; }
  const Journal& journal() const { return journal_; }
  // Kept in "Snapshots" beside the catalogue and named after it, so a second
  // catalogue opened with --db never prunes the snapshots of the usual one.
  Snapshots& snapshots() { return snapshots_; }

  // ---- areas --------------------------------------------------------------
  TrackStore& tracks() { return tracks_; }
  const TrackStore& tracks() const { return tracks_; }
  TrackDataStore& trackData() { return trackData_; }
  const TrackDataStore& trackData() const { return trackData_; }
  AnalysisStore& analysis() { return analysis_; }
  const AnalysisStore& analysis() const { return analysis_; }
  PlaylistStore& playlists() { return playlists_; }
  const PlaylistStore& playlists() const { return playlists_; }
  CueStore& cues() { return cues_; }
  const CueStore& cues() const { return cues_; }
  SmartStore& smart() { return smart_; }
  const SmartStore& smart() const { return smart_; }
  SeratoStore& serato() { return serato_; }
  const SeratoStore& serato() const { return serato_; }

  // ---- statements -------------------------------------------------------
  Statement prepare(std::string_view sql) const { return conn_.prepare(sql); }
  std::optional<std::string> execChecked(const std::string& sql) const {
    return conn_.execChecked(sql);
  }
  std::optional<int64_t> scalarInt(std::string_view sql) const { return conn_.scalarInt(sql); }
  int64_t count(std::string_view table) const { return conn_.count(table); }

  // Copies the live catalogue to a new file with SQLite's online backup.
  Status backup(const std::string& to) const;
  // Runs a caller's read-only SELECT and collects its first column as ids.
  IdsOrError idsFromSelect(std::string_view sql) const;
  // The path key, the same computation as SQL's orvel_norm.
  static std::string normalizePath(std::string_view path);

  // Before a bulk destructive change: a snapshot unless one is under a
  // minute old. Fails only when one was needed and could not be written.
  Status snapshotBefore(const std::string& reason);

  // ---- schema (schema.cpp) ----------------------------------------------
  int64_t userVersion() const;
  bool hasIndex(std::string_view name) const;
  bool hasTable(std::string_view name) const;
  // Whether the file holds a catalogue (a tracks table with a path column)
  // or nothing at all yet.
  bool isCatalogueOrEmpty() const;
  // The rebuild that drops the old UNIQUE on `path` (logs what it did).
  void dropPathUniqueConstraint();
  std::pair<int64_t, int64_t> repairPathNorm();  // (rewritten, collided)
  // Live rows that share a path key (they keep the unique index away).
  std::vector<std::pair<std::string, int64_t>> pathNormCollisions() const;

 private:
  void registerFunctions();
  // Brings the schema up to kSchemaVersion; throws StoreError when it cannot.
  void migrate();
  Status upgradeToVersion1();
  Status upgradeToVersion2();
  Status upgradeToVersion3();
  void retryPathIndex();

  std::string path_;
  Connection conn_;
  Journal journal_;
  Snapshots snapshots_;
  TrackStore tracks_{*this};
  TrackDataStore trackData_{*this};
  AnalysisStore analysis_{*this};
  PlaylistStore playlists_{*this};
  CueStore cues_{*this};
  SmartStore smart_{*this};
  SeratoStore serato_{*this};
};

}  // namespace orvel
