// Merging duplicates and relinking rows whose files moved.
#include <fmt/format.h>

#include <filesystem>

#include "core/store/orvel_db.h"

namespace orvel {
namespace {

bool fileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

}  // namespace

int64_t OrvelDB::mergeTrack(int64_t loser, int64_t keeper) {
  Transaction tx(conn_);
  conn_.execIgnoring(
      fmt::format("INSERT OR IGNORE INTO playlist_tracks(playlist_id, track_id, position)\n"
                  "SELECT playlist_id, {}, position FROM playlist_tracks WHERE track_id={}",
                  keeper, loser));
  const int64_t moved = conn_.changes();
  conn_.execIgnoring(fmt::format("DELETE FROM playlist_tracks WHERE track_id={}", loser));
  conn_.execIgnoring(fmt::format("UPDATE tracks SET merged_into={} WHERE id={}", keeper, loser));
  tx.commit();
  return moved;
}

RelinkStats OrvelDB::relink(bool apply) {
  RelinkStats stats;
  std::vector<std::pair<int64_t, std::string>> dead;
  {
    // The stored file name is what the candidates are matched on; a row
    // without one falls back to the last component of its path.
    Statement st = conn_.prepare(
        "SELECT id, path, COALESCE(filename, '') FROM tracks WHERE merged_into IS NULL");
    while (st.step()) {
      std::string path = st.text(1);
      if (fileExists(path)) continue;
      std::string filename = st.text(2);
      if (filename.empty()) {
        const auto slash = path.find_last_of('/');
        filename = slash == std::string::npos ? path : path.substr(slash + 1);
      }
      dead.emplace_back(st.int64(0), std::move(filename));
    }
  }
  stats.dead = static_cast<int64_t>(dead.size());

  Transaction tx(conn_);
  Statement candidates = conn_.prepare(
      "SELECT id, path FROM tracks WHERE filename=? AND merged_into IS NULL AND id != ? AND "
      "file_missing=0");
  for (const auto& [id, filename] : dead) {
    candidates.reset();
    candidates.bind(1, filename).bind(2, id);
    std::vector<int64_t> survivors;
    while (candidates.step())
      if (fileExists(candidates.text(1))) survivors.push_back(candidates.int64(0));

    if (survivors.size() == 1) {
      ++stats.relinked;
      if (apply) stats.linksMoved += mergeTrack(id, survivors.front());
      continue;
    }
    if (survivors.empty())
      ++stats.unmatched;
    else
      ++stats.ambiguous;
    if (apply) markMissing(id);
  }
  if (apply) tx.commit();
  return stats;
}

}  // namespace orvel
