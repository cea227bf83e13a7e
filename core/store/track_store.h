// Tracks: adding dropped-in files, the launch listing, journaled edits,
// lookups by path and the generic filters over live tracks, merging and
// relinking moved files. Part of OrvelDB (tracks()); same thread contract.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/store/store_area.h"
#include "core/store/track_row.h"

namespace orvel {

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
  std::optional<std::string> albumArtist, composer;
  std::optional<int64_t> trackNumber, trackCount, discNumber, discCount;
  std::optional<bool> compilation;
  std::optional<std::string> sortTitle, sortArtist, sortAlbum, sortAlbumArtist, sortComposer;
};

// What insertImported did with the file.
enum class ImportOutcome { inserted, reinstated, reused };

struct RelinkStats {
  int64_t dead = 0;        // live rows whose file is gone
  int64_t relinked = 0;    // exactly one present row holds the same audio
  int64_t ambiguous = 0;   // several candidates: left alone
  int64_t unmatched = 0;   // no candidate
  int64_t linksMoved = 0;  // playlist places the relinked rows took over
  int64_t offline = 0;     // on a drive that is not mounted: left alone, not counted dead
  // Applying with something to relink: the snapshot taken first (without
  // one nothing was applied), and the operation that undoes it all.
  std::optional<std::string> snapshot;
  std::optional<std::string> opId;
  // Applying: why nothing (or not everything) was written; ok for a dry run.
  Status status;
};

class TrackStore : public StoreArea {
 public:
  explicit TrackStore(OrvelDB& db) : StoreArea(db) {}

  // ---- listing ------------------------------------------------------------
  std::vector<TrackRow> loadAllTracks(std::optional<int64_t> limit = std::nullopt) const;
  // The whole live library as one immutable snapshot in the launch order,
  // stamped with the connection's change generation; share it with workers
  // as it is.
  std::shared_ptr<const TrackSnapshot> loadSnapshot() const;
  // Every live track's id and the four fields a search looks in, in no set
  // order: a search answers without reading whole rows.
  void forEachSearchable(
      const std::function<void(int64_t id, std::string_view title, std::string_view artist,
                               std::string_view album, std::string_view genre)>& visit) const;
  // The launch query's text (what loadAllTracks steps), for measuring it bare.
  static std::string launchQuery();
  std::optional<TrackRow> loadTrack(int64_t id) const;
  // The live rows among these ids as the launch query reads them, in no set
  // order: an id that does not come back was removed or merged.
  std::vector<TrackRow> loadTracks(std::span<const int64_t> ids) const;

  // ---- adding ---------------------------------------------------------------
  // Adds a file, or reuses (reinstates) the row that has its path key;
  // nothing is written when it fails.
  Result<int64_t> insertImported(const NewTrack& track, int64_t sourceId,
                                 ImportOutcome* outcome = nullptr);
  // The source row named "orvel", made on first use.
  Result<int64_t> orvelSourceId();

  // ---- editing --------------------------------------------------------------
  // Maps an editor's field key ("albumartist") to its column ("album_artist");
  // keys without an entry are returned lower-cased as they are.
  static std::string columnFor(std::string_view key);
  bool hasTrackColumn(std::string_view column) const;
  // Journaled edit of one column on many tracks; returns the op id. An
  // unknown column is refused with nothing written.
  Result<std::string> setField(const std::string& column, const std::optional<std::string>& value,
                               std::span<const int64_t> ids, const std::string& opName);
  // The same update without a journal entry, for use inside other operations.
  Status writeField(const std::string& column, const std::optional<std::string>& value,
                    std::span<const int64_t> ids);
  Result<std::string> setRating(std::span<const int64_t> ids, int stars);
  Result<std::string> setLoved(std::span<const int64_t> ids, bool loved);
  Result<std::string> setDisliked(std::span<const int64_t> ids, bool disliked);
  Result<std::string> setMaster(std::span<const int64_t> ids, bool master);
  std::vector<int64_t> lovedIds() const;
  std::vector<int64_t> dislikedIds() const;
  std::vector<int64_t> masterIds() const;
  Status setBPM(int64_t id, double bpm);
  Status setDurationMs(int64_t id, int64_t ms);
  Result<std::string> softRemove(std::span<const int64_t> ids);
  Status markMissing(int64_t id);

  // ---- lookups --------------------------------------------------------------
  // By path, through the normalised key; removed and merged rows count.
  bool hasTrack(std::string_view path) const;
  std::optional<int64_t> trackId(std::string_view path) const;
  // The live row at a path: the one insertImported would reuse as it is.
  std::optional<int64_t> liveTrackId(std::string_view path) const;
  // The live ones among `ids`, in the given order.
  std::vector<int64_t> existingIds(std::span<const int64_t> ids) const;
  // Generic filters over live tracks. Column names are checked against the table.
  std::vector<int64_t> idsWhereFieldEquals(const std::string& column, std::string_view value) const;
  std::vector<std::pair<std::string, int64_t>> valueCounts(const std::string& column) const;
  // The column's values as text ("" for NULL), in no particular order.
  std::vector<std::string> fieldValues(const std::string& column,
                                       std::span<const int64_t> ids) const;

  // ---- merging and relinking (relink.cpp) -----------------------------------
  // Moves the loser's playlist links to the keeper and marks it merged;
  // returns the number of links moved.
  Result<int64_t> mergeTrack(int64_t loser, int64_t keeper);
  // Finds live rows whose file is gone and, for each, the one present row
  // that holds the same audio (same fingerprint, else same duration and
  // size; never the file name alone). Applying, the old row takes the new
  // file's place and keeps everything the user made (rating, marks,
  // comments, cues, grids, plays, playlist places); the duplicate row made
  // when the moved file was imported is retired into it. One journaled,
  // undoable operation; dead rows without a single match are marked missing.
  RelinkStats relink(bool apply);

 private:
  // One relink inside the caller's transaction and operation.
  Status relinkOne(const std::string& opId, const std::string& opName, int64_t keeper,
                   int64_t found, int64_t& linksMoved);
  // The tag fields of a row insertImported has just created.
};

}  // namespace orvel
