// Merging duplicates and relinking rows whose files moved.
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <set>

#include "core/store/orvel_db.h"
#include "core/text/split.h"

namespace orvel {
namespace {

bool fileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

std::optional<int64_t> sizeOnDisk(const std::string& path) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  if (ec) return std::nullopt;
  return static_cast<int64_t>(size);
}

// A moved file is the same audio, so its duration differs by no more than a
// tag reader's rounding.
constexpr int64_t kDurationSlackMs = 1000;

struct FileRow {
  int64_t id = 0;
  std::string path;
  std::optional<int64_t> durationMs;
  std::optional<int64_t> sizeBytes;
};

// The file facts that move with a file: a relinked row takes them from the
// row its file was imported into at the new place.
constexpr const char* kFileFacts[] = {"path",           "filename",    "file_missing",
                                      "filesize_bytes", "file_type",   "bitrate_kbps",
                                      "samplerate_hz",  "date_created"};

// A file on an external drive that is not plugged in is not gone. Its volume
// root ("/Volumes/NAME", "/media/USER/NAME", "/run/media/USER/NAME",
// "/mnt/NAME") is then missing, or an empty mount point.
bool onOfflineVolume(const std::string& path) {
  const auto parts = split(path, '/');  // parts[0] is "" for an absolute path
  size_t depth = 0;
  if (parts.size() > 3 && (parts[1] == "Volumes" || parts[1] == "mnt")) depth = 3;
  if (parts.size() > 4 && parts[1] == "media") depth = 4;
  if (parts.size() > 5 && parts[1] == "run" && parts[2] == "media") depth = 5;
  if (depth == 0) return false;
  std::string root;
  for (size_t i = 1; i < depth; ++i) root += "/" + std::string(parts[i]);
  std::error_code ec;
  return !std::filesystem::exists(root, ec) || std::filesystem::is_empty(root, ec);
}

}  // namespace

Result<int64_t> TrackStore::mergeTrack(int64_t loser, int64_t keeper) {
  Transaction tx(conn_);
  if (!tx) return tx.status();
  if (Status s = conn_.exec(
          fmt::format("INSERT OR IGNORE INTO playlist_tracks(playlist_id, track_id, position)\n"
                      "SELECT playlist_id, {}, position FROM playlist_tracks WHERE track_id={}",
                      keeper, loser));
      !s)
    return s;
  const int64_t moved = conn_.changes();
  if (Status s = conn_.exec(fmt::format("DELETE FROM playlist_tracks WHERE track_id={}", loser));
      !s)
    return s;
  if (Status s =
          conn_.exec(fmt::format("UPDATE tracks SET merged_into={} WHERE id={}", keeper, loser));
      !s)
    return s;
  if (Status kept = tx.commit(); !kept) return kept;
  return moved;
}

namespace {

// Finds, for rows whose file is gone, the one present row that holds the
// same audio. The file name never decides: "01 Intro.mp3" is in half the
// albums of a collection. Where both rows have a fingerprint it must be the
// same; otherwise the duration (within a second) and the size in bytes must
// agree. A row without a duration can only be matched by an equal size and
// an equal fingerprint.
class AudioMatcher {
 public:
  explicit AudioMatcher(const Connection& conn)
      : fingerprintOf_(conn.prepare(
            "SELECT fp_raw FROM track_fingerprints WHERE track_id = ? AND fp_raw IS NOT NULL")) {}

  // A present row (its file exists) that a moved file may have become.
  void addCandidate(FileRow row) { candidates_.push_back(std::move(row)); }
  void seal() {
    std::sort(candidates_.begin(), candidates_.end(), [](const FileRow& a, const FileRow& b) {
      return a.durationMs.value_or(-1) < b.durationMs.value_or(-1);
    });
  }

  // The present rows holding the same audio as `dead`.
  std::vector<int64_t> matches(const FileRow& dead) {
    std::vector<int64_t> out;
    const auto deadPrint = fingerprint(dead.id);
    auto consider = [&](const FileRow& c) {
      if (c.id == dead.id) return;
      const auto print = deadPrint ? fingerprint(c.id) : std::nullopt;
      const bool bothPrinted = deadPrint && print;
      if (bothPrinted) {
        if (*deadPrint != *print) return;
      } else {
        if (!dead.durationMs) return;
        if (!dead.sizeBytes || *dead.sizeBytes <= 0) return;
        if (actualSize(c) != dead.sizeBytes) return;
      }
      out.push_back(c.id);
    };
    if (dead.durationMs) {
      const auto lo = std::lower_bound(
          candidates_.begin(), candidates_.end(), *dead.durationMs - kDurationSlackMs,
          [](const FileRow& r, int64_t ms) { return r.durationMs.value_or(-1) < ms; });
      for (auto it = lo; it != candidates_.end() &&
                         it->durationMs.value_or(-1) <= *dead.durationMs + kDurationSlackMs;
           ++it)
        consider(*it);
    } else if (deadPrint) {
      for (const FileRow& c : candidates_)
        if (dead.sizeBytes && c.sizeBytes == dead.sizeBytes) consider(c);
    }
    return out;
  }

 private:
  std::optional<std::vector<uint8_t>> fingerprint(int64_t id) {
    const auto known = prints_.find(id);
    if (known != prints_.end()) return known->second;
    fingerprintOf_.reset();
    fingerprintOf_.bind(1, id);
    std::optional<std::vector<uint8_t>> print;
    if (fingerprintOf_.step()) {
      auto bytes = fingerprintOf_.blob(0);
      if (!bytes.empty()) print = std::move(bytes);
    }
    return prints_.emplace(id, std::move(print)).first->second;
  }
  // The size on disk now: the catalogue's figure may be from before a tag edit.
  std::optional<int64_t> actualSize(const FileRow& c) {
    const auto known = sizes_.find(c.id);
    if (known != sizes_.end()) return known->second;
    return sizes_.emplace(c.id, sizeOnDisk(c.path)).first->second;
  }

  Statement fingerprintOf_;
  std::vector<FileRow> candidates_;
  std::map<int64_t, std::optional<std::vector<uint8_t>>> prints_;
  std::map<int64_t, std::optional<int64_t>> sizes_;
};

}  // namespace

Status TrackStore::relinkOne(const std::string& opId, const std::string& opName, int64_t keeper,
                             int64_t found, int64_t& linksMoved) {
  // The playlists the duplicate row joined since its import: the kept row
  // takes its places there (once per list).
  std::vector<int64_t> lists;
  {
    Statement st = conn_.prepare(
        "SELECT DISTINCT playlist_id FROM playlist_tracks WHERE track_id = ? ORDER BY 1");
    st.bind(1, found);
    while (st.step()) lists.push_back(st.int64(0));
  }
  for (int64_t list : lists)
    if (Status s = journal_.snapshotPlaylist(opId, opName, list); !s) return s;
  if (Status s = journal_.snapshotRow(opId, opName, "tracks", found); !s) return s;
  // The duplicate's cues of a source the kept row has none of (Serato's,
  // read from the file at its new place) go over with it.
  std::vector<int64_t> cues;
  {
    Statement st = conn_.prepare(
        "SELECT c.id FROM cues c WHERE c.track_id = ?1 AND NOT EXISTS (SELECT 1 FROM cues k "
        "WHERE k.track_id = ?2 AND k.source_id IS c.source_id)");
    st.bind(1, found).bind(2, keeper);
    while (st.step()) cues.push_back(st.int64(0));
  }
  for (int64_t cue : cues)
    if (Status s = journal_.snapshotRow(opId, opName, "cues", cue); !s) return s;

  Statement facts = conn_.prepare(
      "SELECT path, filename, 0, filesize_bytes, file_type, bitrate_kbps, samplerate_hz, "
      "date_created, COALESCE(play_count, 0) FROM tracks WHERE id = ?");
  facts.bind(1, found);
  if (!facts.step()) return Status::notFound(fmt::format("track {} is gone", found));
  std::vector<std::optional<std::string>> values;
  for (int c = 0; c < static_cast<int>(std::size(kFileFacts)); ++c)
    values.push_back(facts.optText(c));
  const int64_t extraPlays = facts.int64(static_cast<int>(std::size(kFileFacts)));

  const std::string k = std::to_string(keeper), f = std::to_string(found);
  for (const std::string& sql :
       {"UPDATE tracks SET merged_into = " + k + " WHERE id = " + f,
        "UPDATE OR IGNORE playlist_tracks SET track_id = " + k + " WHERE track_id = " + f +
            " AND playlist_id NOT IN (SELECT playlist_id FROM playlist_tracks WHERE track_id = " +
            k + ")",
        "DELETE FROM playlist_tracks WHERE track_id = " + f,
        "UPDATE cues SET track_id = " + k + " WHERE id IN (" + joinIds(cues) + ")",
        "UPDATE play_history SET track_id = " + k + " WHERE track_id = " + f}) {
    if (Status s = conn_.exec(sql); !s) return s;
    if (sql.starts_with("UPDATE OR IGNORE")) linksMoved += conn_.changes();
  }
  const std::vector<int64_t> keeperIds{keeper};
  for (size_t c = 0; c < std::size(kFileFacts); ++c) {
    if (Status s =
            journal_.recordCurrent(opId, opName, "tracks", keeperIds, kFileFacts[c], values[c]);
        !s)
      return s;
  }
  if (extraPlays > 0) {
    Statement plays = conn_.prepare("SELECT COALESCE(play_count, 0) FROM tracks WHERE id = ?");
    plays.bind(1, keeper);
    const int64_t total = (plays.step() ? plays.int64(0) : 0) + extraPlays;
    if (Status s = journal_.recordCurrent(opId, opName, "tracks", keeperIds, "play_count",
                                          std::to_string(total));
        !s)
      return s;
    if (Status s = writeField("play_count", std::to_string(total), keeperIds); !s) return s;
  }
  for (size_t c = 0; c < std::size(kFileFacts); ++c)
    if (Status s = writeField(kFileFacts[c], values[c], keeperIds); !s) return s;
  return Status::ok();
}

RelinkStats TrackStore::relink(bool apply) {
  RelinkStats stats;
  std::vector<FileRow> dead;
  AudioMatcher matcher(conn_);
  {
    Statement st = conn_.prepare(fmt::format(
        "SELECT id, path, duration_ms, filesize_bytes, file_missing FROM tracks WHERE {}",
        kLiveTrack));
    while (st.step()) {
      FileRow row{st.int64(0), st.text(1), st.optInt64(2), st.optInt64(3)};
      if (fileExists(row.path)) {
        if (st.int64(4) == 0) matcher.addCandidate(std::move(row));
        continue;
      }
      if (onOfflineVolume(row.path)) {
        ++stats.offline;
        continue;
      }
      dead.push_back(std::move(row));
    }
  }
  matcher.seal();
  stats.dead = static_cast<int64_t>(dead.size());

  // Each dead row with exactly one match, unless another dead row claims the
  // same file (two copies of one song moved, one arrived): that is no
  // better than a guess, so both are left alone.
  std::vector<std::pair<int64_t, int64_t>> pairs;
  std::vector<int64_t> missing;
  std::map<int64_t, int> claims;
  std::vector<std::vector<int64_t>> found(dead.size());
  for (size_t i = 0; i < dead.size(); ++i) {
    found[i] = matcher.matches(dead[i]);
    if (found[i].size() == 1) ++claims[found[i].front()];
  }
  for (size_t i = 0; i < dead.size(); ++i) {
    if (found[i].size() == 1 && claims[found[i].front()] == 1) {
      pairs.emplace_back(dead[i].id, found[i].front());
      continue;
    }
    if (found[i].empty())
      ++stats.unmatched;
    else
      ++stats.ambiguous;
    missing.push_back(dead[i].id);
  }
  stats.relinked = static_cast<int64_t>(pairs.size());
  if (!apply) return stats;

  // The relink is undoable from the history; a snapshot is taken as well,
  // but only when something will merge, so runs that merge nothing never
  // push an older way back out of the few snapshots kept.
  if (!pairs.empty()) {
    const auto file = snapshots_.take("before relink", 0);
    if (!file) {
      stats.status = Status::failed(snapshots_.lastError());
      return stats;
    }
    stats.snapshot = file->string();
  }
  Transaction tx(conn_);
  if (!tx) {
    stats.status = tx.status();
    return stats;
  }
  static const std::string kOpName = "Relink Moved Files";
  const std::string opId = journal_.begin(kOpName);
  int64_t linksMoved = 0;
  for (const auto& [keeper, duplicate] : pairs) {
    if (Status s = relinkOne(opId, kOpName, keeper, duplicate, linksMoved); !s) {
      stats.status = s;
      return stats;
    }
  }
  if (Status s = journal_.seal(opId); !s) {
    stats.status = s;
    return stats;
  }
  for (int64_t id : missing) {
    if (Status s = markMissing(id); !s) {
      stats.status = s;
      return stats;
    }
  }
  stats.status = tx.commit();
  if (stats.status) {
    stats.linksMoved = linksMoved;
    if (!pairs.empty()) stats.opId = opId;
  }
  return stats;
}

}  // namespace orvel
