// Merging duplicates and relinking rows whose files moved.
#include <fmt/format.h>

#include <filesystem>
#include <optional>

#include "core/store/orvel_db.h"
#include "core/text/split.h"

namespace orvel {
namespace {

bool fileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

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

RelinkStats TrackStore::relink(bool apply) {
  RelinkStats stats;
  std::vector<std::pair<int64_t, std::string>> dead;
  {
    Statement st = conn_.prepare("SELECT id, path FROM tracks WHERE merged_into IS NULL");
    while (st.step()) {
      std::string path = st.text(1);
      if (fileExists(path)) continue;
      if (onOfflineVolume(path)) {
        ++stats.offline;
        continue;
      }
      dead.emplace_back(st.int64(0), std::move(path));
    }
  }
  stats.dead = static_cast<int64_t>(dead.size());

  // Merges cannot be undone from the history: a fresh snapshot is the way
  // back, and without one nothing is applied.
  if (apply && !dead.empty()) {
    const auto file = snapshots_.take("before relink", 0);
    if (!file) {
      stats.status = Status::failed(snapshots_.lastError());
      return stats;
    }
    stats.snapshot = file->string();
  }

  // A dry run writes nothing, so it takes no write lock either.
  std::optional<Transaction> tx;
  if (apply) {
    tx.emplace(conn_);
    if (!*tx) {
      stats.status = tx->status();
      return stats;
    }
  }
  Statement candidates = conn_.prepare(
      "SELECT id FROM tracks WHERE filename=? AND merged_into IS NULL AND id != ? AND "
      "file_missing=0");
  Statement pathOf = conn_.prepare("SELECT path FROM tracks WHERE id=?");
  // After a failed write nothing more is written (the transaction rolls back
  // whole), but the rows are still counted as a dry run counts them.
  bool writing = apply;
  for (const auto& [id, path] : dead) {
    candidates.reset();
    candidates.bind(1, lastPathComponent(path)).bind(2, id);
    std::vector<int64_t> survivors;
    while (candidates.step()) {
      pathOf.reset();
      pathOf.bind(1, candidates.int64(0));
      if (pathOf.step() && fileExists(pathOf.text(0))) survivors.push_back(candidates.int64(0));
    }
    if (survivors.size() == 1) {
      ++stats.relinked;
      if (writing) {
        if (auto moved = mergeTrack(id, survivors.front())) {
          stats.linksMoved += *moved;
        } else {
          stats.status = moved.status();
          writing = false;
        }
      }
      continue;
    }
    if (survivors.empty())
      ++stats.unmatched;
    else
      ++stats.ambiguous;
    if (writing) {
      if (Status s = markMissing(id); !s) {
        stats.status = s;
        writing = false;
      }
    }
  }
  if (tx && stats.status) stats.status = tx->commit();
  if (!stats.status) stats.linksMoved = 0;  // rolled back: no link moved
  return stats;
}

}  // namespace orvel
