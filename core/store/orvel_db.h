// The catalogue store: one SQLite database, `orvel.db`, and every operation on
// it. Owns the one connection (serialized mode) and the Journal on it. Opening
// brings the schema up to date; opening is the only operation that throws.
// Every other operation reports SQL faults as empty results (plus the
// "SQL WOULD NOT COMPILE: " line on stderr) and leaves the catalogue as it was.
//
// The operations are implemented by area: orvel_db.cpp (opening, statements,
// backup), schema.cpp (the upgrade), tracks.cpp (adding, loading, editing),
// track_data.cpp (plays, fingerprints, waveforms, options, release fields, tags, lookups),
// relink.cpp (merging and relinking moved files), playlists.cpp (the tree and
// its members), cues.cpp (cues, loops, beat grids), smart_playlists.cpp,
// serato_store.cpp (Serato's library and file tags folded in), defects.cpp
// (what defect scans found and the user's verdicts on it).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/store/connection.h"
#include "core/store/crate_node.h"
#include "core/store/cue_row.h"
#include "core/store/defect_row.h"
#include "core/store/journal.h"
#include "core/store/smart_rules.h"
#include "core/store/snapshots.h"
#include "core/store/track_row.h"

namespace orvel {

struct SeratoLibrary;
struct SeratoFileTags;
struct SeratoGridAnchor;

// A file being added to the catalogue: the eleven columns every new row gets,
// then what the file's own tags say. The tag fields are written only when the
// row is new; a reused or reinstated row keeps the values it has.
struct NewTrack {
  std::string path;
  std::string filename;  // empty: taken from the path
  std::optional<std::string> title;
  std::optional<std::string> artist;
  std::optional<std::string> album;
  std::optional<std::string> genre;
  std::optional<int64_t> durationMs;
  std::optional<int64_t> filesizeBytes;
  std::optional<int64_t> dateAdded;  // none: now
  std::optional<int64_t> dateCreated;
  bool production = false;

  std::optional<std::string> year, comment, grouping, label, fileType, key;
  std::optional<int64_t> bitrateKbps, samplerateHz;
  std::optional<double> bpm;
};

// What insertImported did with the file.
enum class ImportOutcome { inserted, reinstated, reused };

struct RelinkStats {
  int64_t dead = 0;        // rows whose file is gone
  int64_t relinked = 0;    // exactly one live row with the same file name exists
  int64_t ambiguous = 0;   // several candidates: left alone
  int64_t unmatched = 0;   // no candidate
  int64_t linksMoved = 0;  // playlist links moved to the surviving rows
  int64_t offline = 0;     // on a drive that is not mounted: left alone, not counted dead
  // Applying: the snapshot taken first. Without one nothing was applied.
  std::optional<std::string> snapshot;
  bool refused = false;  // applying, but no snapshot could be taken
};

// A smart playlist saved from the editor or the command line.
struct SmartSaveResult {
  std::optional<int64_t> playlistId;  // none: refused, see error
  int64_t trackCount = 0;
  std::string opId;
  std::string error;
};

struct PurgeRow {
  int64_t id = 0;
  std::string path, artist, title;
  std::optional<int64_t> bitrate;
  int64_t bytes = 0;
  bool missing = false;
  bool isProduction = false;
  bool isLossless = false;
  bool inAnyPlaylist = false;
  int64_t cueCount = 0;  // all kinds
};

struct ArtistAlbumGenre {
  int64_t id = 0;
  std::string artist, album, genre;
};

// What reading Serato's library added to the catalogue. Nothing is ever
// removed, so all zero means the catalogue was already up to date.
struct SeratoRefreshCounts {
  int64_t tracksAdded = 0;   // rows made from "database V2"
  int64_t tracksFilled = 0;  // existing rows whose empty fields were filled in
  int64_t cratesAdded = 0;
  int64_t addedLinks = 0;    // crate memberships
  int64_t ghosts = 0;        // placeholders for crate members not in the catalogue
  int64_t smartUpdated = 0;  // smart crates whose rule summary changed
  int64_t tagsStored = 0;    // files whose cues or beat grid changed
  int64_t skippedTrackChunks = 0;

  bool anythingAdded() const {
    return tracksAdded + tracksFilled + cratesAdded + addedLinks + ghosts + smartUpdated +
               tagsStored >
           0;
  }
};

enum class TagsStored { changed, unchanged, failed };

// Either the ids a SELECT produced or why it was refused.
struct IdsOrError {
  std::vector<int64_t> ids;
  std::optional<std::string> error;
};

class OrvelDB {
 public:
  using FieldWritten =
      std::function<void(const std::string& field, const std::optional<std::string>& value,
                         const std::vector<int64_t>& ids)>;

  // Opens or creates the catalogue and upgrades it. Throws StoreError.
  explicit OrvelDB(const std::string& path);
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

  // Called after field writes so an in-memory model can patch its rows.
  FieldWritten onFieldWritten;

  // Why the last journaled edit that returned no op id failed (SQLite's words).
  const std::string& lastError() const { return lastError_; }

  // ---- statements -------------------------------------------------------
  Statement prepare(std::string_view sql) const { return conn_.prepare(sql); }
  std::optional<std::string> execChecked(const std::string& sql) const {
    return conn_.execChecked(sql);
  }
  std::optional<int64_t> scalarInt(std::string_view sql) const { return conn_.scalarInt(sql); }
  int64_t count(std::string_view table) const { return conn_.count(table); }
  void begin() const { conn_.begin(); }
  void commit() const { conn_.commit(); }

  // Copies the live catalogue to a new file with SQLite's online backup.
  bool backup(const std::string& to) const;
  // Runs a caller's read-only SELECT and collects its first column as ids.
  IdsOrError idsFromSelect(std::string_view sql) const;
  // The path key, the same computation as SQL's orvel_norm.
  static std::string normalizePath(std::string_view path);

  // ---- schema (schema.cpp) ----------------------------------------------
  void migrate();
  void dropPathUniqueConstraint();
  std::pair<int64_t, int64_t> repairPathNorm();  // (rewritten, collided)
  int64_t backfillPathNorm();
  std::vector<std::pair<std::string, int64_t>> pathNormCollisions() const;
  int64_t userVersion() const;
  bool hasIndex(std::string_view name) const;
  void ensureReleaseSchema() const;
  void ensureTagSchema() const;

  // ---- tracks (tracks.cpp) ----------------------------------------------
  std::vector<TrackRow> loadAllTracks(std::optional<int64_t> limit = std::nullopt) const;
  // The launch query's text (what loadAllTracks steps), for measuring it bare.
  static std::string launchQuery();
  std::optional<TrackRow> loadTrack(int64_t id) const;
  // Adds a file, or reuses (reinstates) the row that has its path key; none on
  // an SQL fault, with nothing written.
  std::optional<int64_t> insertImported(const NewTrack& track, int64_t sourceId,
                                        ImportOutcome* outcome = nullptr);
  int64_t orvelSourceId();

  // Maps an editor's field key ("albumartist") to its column ("album_artist");
  // keys without an entry are returned lower-cased as they are.
  static std::string columnFor(std::string_view key);
  bool hasTrackColumn(std::string_view column) const;
  // Journaled edit of one column on many tracks; false (nothing written) for
  // an unknown column. Returns the op id on success.
  std::optional<std::string> setField(const std::string& column,
                                      const std::optional<std::string>& value,
                                      std::span<const int64_t> ids, const std::string& opName);
  // The same update without a journal entry, for use inside other operations.
  bool writeField(const std::string& column, const std::optional<std::string>& value,
                  std::span<const int64_t> ids);

  std::optional<std::string> setRating(std::span<const int64_t> ids, int stars);
  std::optional<std::string> setLoved(std::span<const int64_t> ids, bool loved);
  std::optional<std::string> setDisliked(std::span<const int64_t> ids, bool disliked);
  std::vector<int64_t> lovedIds() const;
  std::vector<int64_t> dislikedIds() const;
  std::vector<int64_t> masterIds() const;
  std::optional<std::string> setMaster(std::span<const int64_t> ids, bool master);
  void setBPM(int64_t id, double bpm);
  void setDurationMs(int64_t id, int64_t ms);
  // Analysis results never overwrite a value the user already has.
  void setAnalysis(int64_t id, const std::optional<std::string>& key, std::optional<double> bpm);
  std::optional<std::string> softRemove(std::span<const int64_t> ids);
  void markMissing(int64_t id);

  // Lookups by path go through the normalised key; removed and merged rows count.
  bool hasTrack(std::string_view path) const;
  std::optional<int64_t> trackId(std::string_view path) const;
  // The live row at a path: the one insertImported would reuse as it is.
  std::optional<int64_t> liveTrackId(std::string_view path) const;
  std::optional<std::string> findByTags(std::string_view artist, std::string_view title) const;
  std::vector<int64_t> existingIds(
      std::span<const int64_t> ids) const;  // live ones, in the given order

  // Generic filters over live tracks. Column names are checked against the table.
  std::vector<int64_t> idsWhere(const std::string& condition, int64_t limit) const;
  std::vector<int64_t> idsWhereFieldEquals(const std::string& column, std::string_view value) const;
  std::vector<std::pair<std::string, int64_t>> valueCounts(const std::string& column) const;
  std::vector<std::string> fieldValues(const std::string& column,
                                       std::span<const int64_t> ids) const;
  std::vector<PurgeRow> purgeRows() const;
  std::vector<ArtistAlbumGenre> artistAlbumGenreRows() const;

  // ---- merging and relinking (relink.cpp) -------------------------------
  // Moves the loser's playlist links to the keeper and marks it merged;
  // returns the number of links moved.
  int64_t mergeTrack(int64_t loser, int64_t keeper);
  RelinkStats relink(bool apply);

  // ---- plays, fingerprints, options, release fields, tags (track_data.cpp)
  void recordPlay(int64_t trackId, int64_t at, int64_t keep);
  std::vector<std::pair<int64_t, int64_t>> recentPlays(int64_t limit) const;  // (track, at)
  void clearPlayHistory();

  std::vector<std::pair<int64_t, std::string>> tracksNeedingFingerprint(int64_t limit) const;
  void setRawFingerprint(int64_t trackId, const std::vector<uint8_t>& bytes);

  // The stored overview waveform (3,200 bytes), none when never computed.
  std::optional<std::vector<uint8_t>> waveform(int64_t trackId) const;
  void setWaveform(int64_t trackId, const std::vector<uint8_t>& peaks);

  std::optional<std::string> trackOptions(int64_t trackId) const;
  std::optional<std::string> setTrackOptions(int64_t trackId, const std::string& json);
  std::vector<int64_t> shuffleExcludedIds() const;

  std::vector<int64_t> idsWithISRC() const;
  std::map<int64_t, std::string> isrcMap() const;
  void setISRC(int64_t trackId, const std::string& isrc);

  void addTag(std::span<const int64_t> ids, const std::string& tag);
  void removeTag(std::span<const int64_t> ids, const std::string& tag);
  std::vector<int64_t> taggedIds(const std::string& tag) const;
  std::vector<std::string> tagsOf(int64_t trackId) const;
  std::vector<std::pair<std::string, int64_t>> allTagCounts() const;
  std::vector<int64_t> idsWithArtwork() const;

  // ---- the playlist tree (playlists.cpp) --------------------------------
  // Journaled edits return their op id; none means nothing was changed.
  // A playlist of this program, at the top or under `parent`.
  std::optional<int64_t> create(const std::string& name, std::optional<int64_t> parent,
                                std::string_view kind = "playlist");
  std::optional<int64_t> newProject(const std::string& name);
  std::optional<int64_t> newRelease(const std::string& name);
  std::vector<PlaylistEntry> projects() const;
  std::vector<PlaylistEntry> releases() const;
  std::optional<PlaylistEntry> studioProject(int64_t trackId) const;
  std::optional<std::string> renamePlaylist(int64_t id, const std::string& name);
  std::optional<std::string> setPlaylistColor(int64_t id, const std::optional<std::string>& color);
  std::map<int64_t, std::string> playlistColors() const;
  // Refused (none) for a move under the node itself or one of its descendants.
  std::optional<std::string> setPlaylistParent(int64_t id, std::optional<int64_t> parent);
  bool isDescendant(int64_t node, int64_t ancestor) const;
  // Deletes the node, its whole subtree and their members in one operation.
  std::optional<std::string> deletePlaylist(int64_t id);
  std::vector<int64_t> childPlaylistIds(int64_t id) const;
  // Every node with its id, name and source; this program's own first.
  std::vector<PlaylistEntry> writablePlaylists() const;
  std::vector<PlaylistEntry> orvelPlaylists();
  // Crates with 1 to `maxTracks` members.
  std::vector<PlaylistEntry> playlistsForDJExport(int64_t maxTracks) const;
  std::vector<PlaylistEntry> playlistsContaining(int64_t trackId) const;
  // "Sets / 2026 / Warm-up": the names from the top down joined by " / ".
  std::optional<int64_t> playlistByPath(const std::string& path) const;
  std::optional<PlaylistEntry> playlist(int64_t id) const;
  std::string playlistKind(int64_t id) const;
  // The names from the top down to the node, joined by " / ".
  std::string playlistPath(int64_t id) const;
  // The whole tree, top-level nodes and children ordered by name.
  std::vector<CrateNode> crateTree() const;
  // The node and every node below it, the node first.
  std::vector<int64_t> subtreeIds(int64_t id) const;

  // ---- members (playlists.cpp) ------------------------------------------
  std::vector<int64_t> orderedTrackIds(int64_t playlistId) const;
  // Appends the tracks not yet in the playlist, in the given order.
  std::optional<std::string> addToPlaylist(std::span<const int64_t> ids, int64_t playlistId);
  std::optional<std::string> removeFromPlaylist(std::span<const int64_t> ids, int64_t playlistId);
  // The members become exactly `ids`, in that order.
  std::optional<std::string> reorderPlaylist(int64_t playlistId, std::span<const int64_t> ids);
  // The same replacement, unjournaled: for members computed by the program.
  bool replacePlaylistTracks(int64_t playlistId, std::span<const int64_t> ids);
  bool setPlaylistTracks(int64_t playlistId, std::span<const int64_t> ids) {
    return replacePlaylistTracks(playlistId, ids);
  }
  std::vector<std::string> playlistPaths(int64_t playlistId) const;
  int64_t playlistRowCount(int64_t playlistId) const;

  // ---- cues, loops and beat grids (cues.cpp) ----------------------------
  // The track's cues and loops: user slots, automatic pair, imported ones.
  std::vector<CueRow> cues(int64_t trackId) const;
  std::optional<CueRow> cue(int64_t cueId) const;
  // The lowest free slot of eight; none when all are taken.
  std::optional<CueEdit> addManualCue(int64_t trackId, double positionMs);
  std::optional<CueEdit> addManualLoop(int64_t trackId, double startMs, double lengthMs);
  // Replaces the cue in `slot` (0–7); a higher slot is refused.
  std::optional<std::string> setCue(int64_t trackId, int slot, double positionMs);
  std::optional<std::string> moveCue(int64_t cueId, double positionMs);
  std::optional<std::string> setLoopBounds(int64_t cueId, double startMs, double lengthMs);
  std::optional<std::string> deleteCue(int64_t cueId);
  std::vector<int64_t> autoCueIds(int64_t trackId) const;
  // The analyser's in and out cues, replacing its earlier pair only.
  std::optional<std::string> replaceAutoCues(int64_t trackId, double inMs, double outMs);
  // Cues and the beat grid one source (Serato) keeps for a track, replaced
  // whole; the user's own cues and other sources' are left alone.
  bool replaceSourceCues(int64_t trackId, int64_t sourceId, std::span<const CueRow> cues,
                         std::span<const BeatAnchor> grid);
  std::vector<BeatAnchor> beatGrid(int64_t trackId, std::optional<int64_t> sourceId) const;
  // Every grid the track has, one per source, in the order they were stored.
  std::vector<SourceGrid> beatGrids(int64_t trackId) const;

  // ---- Serato (serato_store.cpp) ------------------------------------------
  // The source row named "serato", made on first use.
  int64_t seratoSourceId(const std::string& detail = {});
  // A file's Serato cues, loops and beat grid replace the ones stored for it
  // under the Serato source; unchanged tags write nothing.
  TagsStored storeFileTags(int64_t trackId, const SeratoFileTags& tags);
  // Serato's grid markers as anchors in milliseconds, each with its tempo:
  // the marker's own, else the beats to the next marker over the time to it.
  static std::vector<BeatAnchor> gridFromSerato(std::span<const SeratoGridAnchor> anchors);
  // In one transaction: the tracks of "database V2" (matched by path key; a
  // new row gets Serato's fields and is marked missing when its file is not
  // there; an existing row only has empty fields filled), then the crates.
  // None on an SQL fault, with nothing written.
  std::optional<SeratoRefreshCounts> foldSeratoTracks(const SeratoLibrary& library);
  // Serato's crates as 'crate' nodes under the Serato source, nested by their
  // name chains; members only ever added, unknown paths as placeholders;
  // smart crates keep their rule summaries.
  bool refreshSeratoCrates(const SeratoLibrary& library, SeratoRefreshCounts& counts);

  // ---- smart playlists (smart_playlists.cpp) ----------------------------
  // Track ids in the order the statement returns them; empty on SQL errors.
  std::vector<int64_t> smartQueryIds(const SmartPlaylist& playlist) const;
  bool saveSmartRules(int64_t playlistId, const SmartPlaylist& playlist);
  std::optional<SmartPlaylist> loadSmartRules(int64_t playlistId) const;
  // Every smart playlist and whether it updates live.
  std::map<int64_t, bool> smartPlaylists() const;
  // Validates, evaluates, creates (no `existing`) or updates the playlist,
  // stores its members and rules, as one undoable operation.
  SmartSaveResult saveSmartPlaylist(const SmartPlaylist& playlist,
                                    std::optional<int64_t> existing = std::nullopt);
  // A live smart playlist evaluated now, its stored members updated to match;
  // none for a playlist that is not live or whose rules do not load.
  std::optional<std::vector<int64_t>> refreshSmartPlaylist(int64_t playlistId);

  // ---- defect scans (defects.cpp) -----------------------------------------
  // The tables are made on first use, so any catalogue can take a scan.
  void ensureDefectSchema() const;
  // A track's new findings replace its old ones whole, and the scan is
  // remembered (when, how many found) even when it found nothing. False, with
  // nothing written, on an SQL fault.
  bool recordDefectScan(int64_t trackId, std::span<const DefectRow> findings, int64_t scannedAt);
  // The track's findings in time order.
  std::vector<DefectRow> defects(int64_t trackId) const;
  std::vector<int64_t> tracksWithDefects() const;
  // Every track scanned at least once, whatever it found.
  std::vector<int64_t> scannedTracks() const;
  // kDefectFixed or kDefectIgnored, replacing the track's earlier verdict.
  bool setDefectStatus(int64_t trackId, std::string_view status, int64_t at);
  std::map<int64_t, std::string> defectStatuses() const;

  // ---- snapshots ----------------------------------------------------------
  // Before a bulk destructive change: a snapshot unless one is under a
  // minute old. False only when one was needed and could not be written.
  bool snapshotBefore(const std::string& reason);

 private:
  std::optional<int64_t> insertPlaylist(const std::string& name, std::optional<int64_t> parent,
                                        std::string_view kind, int64_t sourceId);
  std::optional<int64_t> newSourceNode(const std::string& name, int64_t sourceId,
                                       const std::string& opName);
  std::optional<std::string> journaledMembers(int64_t playlistId, const std::string& opName,
                                              const std::function<bool()>& edit);
  bool insertMembers(int64_t playlistId, std::span<const int64_t> ids, int64_t firstPosition);
  // The tag fields of a row insertImported has just created.
  bool writeImportedTags(int64_t id, const NewTrack& track);
  // A cue or loop of this program in `slot`; returns its id.
  std::optional<int64_t> insertManual(int64_t trackId, std::string_view kind, int slot,
                                      double positionMs, std::optional<double> lengthMs);
  std::optional<CueEdit> addInFreeSlot(int64_t trackId, std::string_view kind, double positionMs,
                                       std::optional<double> lengthMs);
  void ensureSmartSchema() const;
  // A row just inserted into `table` (cues, playlists) whose id the history
  // already knows (a deleted row's id, reused by SQLite) gets a new id, so
  // undoing that deletion can never overwrite it. Returns the row's id.
  int64_t freshRowId(std::string_view table, int64_t id);

  void notifyFieldWritten(const std::string& field, const std::optional<std::string>& value,
                          std::span<const int64_t> ids) const;
  void registerFunctions();

  std::string path_;
  std::string lastError_;
  Connection conn_;
  Journal journal_;
  Snapshots snapshots_;
};

}  // namespace orvel
