// The playlist tree (crates, playlists, smart playlists, projects, releases)
// and the ordered members of each node.
#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <unordered_map>

#include "core/store/log.h"
#include "core/store/orvel_db.h"

namespace orvel {
namespace {

// Deleting more members than this at once takes a snapshot first.
constexpr int64_t kSnapshotAboveTracks = 30;

// (id, name[, parent_id]) rows of a listing.
std::vector<PlaylistEntry> readEntries(Statement& st, bool withParent, bool withCount = false) {
  std::vector<PlaylistEntry> out;
  while (st.step()) {
    PlaylistEntry e;
    e.id = st.int64(0);
    e.name = st.text(1);
    if (withParent) e.parentId = st.optInt64(2);
    if (withCount) e.trackCount = st.int64(2);
    out.push_back(std::move(e));
  }
  return out;
}

}  // namespace

// ---- the tree ---------------------------------------------------------------

Result<int64_t> PlaylistStore::insertPlaylist(const std::string& name,
                                              std::optional<int64_t> parent, std::string_view kind,
                                              int64_t sourceId) {
  if (name.empty()) {
    return Status::invalid("a playlist needs a name");
  }
  if (parent && !playlist(*parent)) {
    return Status::notFound("no playlist with id " + std::to_string(*parent));
  }
  Statement st =
      kind == "playlist"
          ? conn_.prepare(
                "INSERT INTO playlists(source_id, parent_id, name, kind) VALUES(?, ?, ?, "
                "'playlist')")
          : conn_.prepare(
                "INSERT INTO playlists(source_id, parent_id, name, kind) VALUES(?, ?, ?, ?)");
  st.bind(1, sourceId).bind(2, parent).bind(3, name);
  if (kind != "playlist") st.bind(4, kind);
  if (st.stepCode() != SQLITE_DONE) {
    return conn_.lastStatus();
  }
  return freshRowId("playlists", conn_.lastInsertId());
}

Result<int64_t> PlaylistStore::create(const std::string& name, std::optional<int64_t> parent,
                                      std::string_view kind) {
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const auto source = db_.tracks().orvelSourceId();
  if (!source) return source.status();
  const auto id = insertPlaylist(name, parent, kind, *source);
  if (!id) return id.status();
  const std::string opName = kind == "crate" ? "New Crate" : "New Playlist";
  if (Status j = journal_.recordCreated(journal_.begin(opName), opName, "playlists", *id); !j)
    return j;
  if (Status kept = tx.commit(); !kept) return kept;
  return id;
}

std::optional<PlaylistEntry> PlaylistStore::playlist(int64_t id) const {
  Statement st = conn_.prepare(
      "SELECT p.id, p.name, p.parent_id, COALESCE(s.name, ''),\n"
      "  (SELECT COUNT(*) FROM playlist_tracks m WHERE m.playlist_id = p.id)\n"
      "FROM playlists p LEFT JOIN sources s ON s.id = p.source_id WHERE p.id = ?");
  st.bind(1, id);
  if (!st.step()) return std::nullopt;
  return PlaylistEntry{st.int64(0), st.text(1), st.optInt64(2), st.text(3), st.int64(4)};
}

std::string PlaylistStore::playlistKind(int64_t id) const {
  Statement st = conn_.prepare("SELECT kind FROM playlists WHERE id = ?");
  st.bind(1, id);
  return st.step() ? st.text(0) : std::string();
}

std::string PlaylistStore::playlistPath(int64_t id) const {
  std::string path;
  std::set<int64_t> seen;  // a damaged tree may hold a cycle
  Statement st = conn_.prepare("SELECT name, parent_id FROM playlists WHERE id = ?");
  for (std::optional<int64_t> at = id; at && seen.insert(*at).second;) {
    st.reset();
    st.bind(1, *at);
    if (!st.step()) break;
    path = path.empty() ? st.text(0) : st.text(0) + " / " + path;
    at = st.optInt64(1);
  }
  return path;
}

Result<std::string> PlaylistStore::renamePlaylist(int64_t id, const std::string& name) {
  if (name.empty()) {
    return Status::invalid("a playlist needs a name");
  }
  Statement old = conn_.prepare("SELECT name FROM playlists WHERE id=?");
  old.bind(1, id);
  if (!old.step()) {
    return Status::notFound("no playlist with id " + std::to_string(id));
  }
  const std::string opName = "Rename Crate";
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = journal_.begin(opName);
  if (Status j = journal_.record(opId, opName, "playlists", id, "name", old.optText(0), name); !j)
    return j;
  Statement up = conn_.prepare("UPDATE playlists SET name=? WHERE id=?");
  if (up.bind(1, name).bind(2, id).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

Result<std::string> PlaylistStore::setPlaylistColor(int64_t id,
                                                    const std::optional<std::string>& color) {
  if (!playlist(id)) {
    return Status::notFound("no playlist with id " + std::to_string(id));
  }
  const std::string opName = "Crate Color";
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = journal_.begin(opName);
  if (Status j = journal_.recordCurrent(opId, opName, "playlists", std::vector<int64_t>{id},
                                        "color", color);
      !j)
    return j;
  Statement up = conn_.prepare("UPDATE playlists SET color=? WHERE id=?");
  if (up.bind(1, color).bind(2, id).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

std::map<int64_t, std::string> PlaylistStore::playlistColors() const {
  std::map<int64_t, std::string> out;
  Statement st =
      conn_.prepare("SELECT id, color FROM playlists WHERE color IS NOT NULL AND color <> ''");
  while (st.step()) out.emplace(st.int64(0), st.text(1));
  return out;
}

bool PlaylistStore::isDescendant(int64_t node, int64_t ancestor) const {
  std::set<int64_t> seen{node};
  int64_t at = node;
  for (;;) {
    auto parent =
        conn_.scalarInt("SELECT parent_id FROM playlists WHERE id = " + std::to_string(at));
    if (!parent) return false;
    if (*parent == ancestor) return true;
    // A cycle already in the data can only be walked once.
    if (!seen.insert(*parent).second) return false;
    at = *parent;
  }
}

Result<std::string> PlaylistStore::setPlaylistParent(int64_t id, std::optional<int64_t> parent) {
  if (!playlist(id)) {
    return Status::notFound("no playlist with id " + std::to_string(id));
  }
  if (parent && !playlist(*parent)) {
    return Status::notFound("no playlist with id " + std::to_string(*parent));
  }
  if (parent && (*parent == id || isDescendant(*parent, id))) {
    return Status::failed("a playlist cannot move into itself or into one of its own playlists");
  }
  const std::string opName = "Move Playlist";
  const std::optional<std::string> newValue =
      parent ? std::optional<std::string>(std::to_string(*parent)) : std::nullopt;
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = journal_.begin(opName);
  if (Status j = journal_.recordCurrent(opId, opName, "playlists", std::vector<int64_t>{id},
                                        "parent_id", newValue);
      !j)
    return j;
  Statement up = conn_.prepare("UPDATE playlists SET parent_id = ? WHERE id = ?");
  if (up.bind(1, parent).bind(2, id).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

std::vector<int64_t> PlaylistStore::childPlaylistIds(int64_t id) const {
  Statement st = conn_.prepare("SELECT id FROM playlists WHERE parent_id = ?");
  st.bind(1, id);
  std::vector<int64_t> out;
  while (st.step()) out.push_back(st.int64(0));
  return out;
}

std::vector<int64_t> PlaylistStore::subtreeIds(int64_t id) const {
  std::vector<int64_t> out{id};
  std::set<int64_t> seen{id};
  for (size_t i = 0; i < out.size(); ++i)
    for (int64_t child : childPlaylistIds(out[i]))
      if (seen.insert(child).second) out.push_back(child);
  return out;
}

Result<std::string> PlaylistStore::deletePlaylist(int64_t id) {
  const auto node = playlist(id);
  if (!node) {
    return Status::notFound("no playlist with id " + std::to_string(id));
  }
  const std::vector<int64_t> ids = subtreeIds(id);
  const std::string idList = joinIds(ids);
  const int64_t tracks =
      conn_
          .scalarInt("SELECT COUNT(DISTINCT track_id) FROM playlist_tracks WHERE playlist_id IN (" +
                     idList + ")")
          .value_or(0);
  // The deletion itself can be undone; the snapshot is the way back should
  // the history ever be lost. A snapshot that fails does not stop the user.
  if (tracks > kSnapshotAboveTracks) {
    if (Status snap = db_.snapshotBefore("before deleting " + node->name); !snap)
      note("Delete Playlist: no snapshot (" + snap.message() + "); deleting " + node->name +
           " anyway, it can be undone");
  }

  const std::string opName = "Delete Playlist";
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = journal_.begin(opName);
  // Everything is recorded before anything is deleted, leaves first and each
  // node's row last, so undo (newest entry first) puts parents back before
  // their children and a node's row before its members, as foreign keys need.
  Statement smart = conn_.prepare("SELECT 1 FROM smart_playlists WHERE playlist_id = ?");
  for (auto it = ids.rbegin(); it != ids.rend(); ++it) {
    if (Status j = journal_.snapshotPlaylist(opId, opName, *it); !j) return j;
    smart.reset();
    smart.bind(1, *it);
    if (smart.step()) {
      if (Status j = journal_.snapshotRow(opId, opName, "smart_playlists", *it); !j) return j;
    }
    if (Status j = journal_.snapshotRow(opId, opName, "playlists", *it); !j) return j;
  }
  // Children first, as the tree is taken down from the leaves.
  for (auto it = ids.rbegin(); it != ids.rend(); ++it) {
    const std::string each = std::to_string(*it);
    for (const std::string& sql : {"DELETE FROM playlist_tracks WHERE playlist_id = " + each,
                                   "DELETE FROM playlists WHERE id = " + each,
                                   "DELETE FROM smart_playlists WHERE playlist_id = " + each}) {
      if (auto error = conn_.execChecked(sql)) {
        return Status::failed(*error);  // rolls back, journal entries included
      }
    }
  }
  if (Status j = journal_.seal(opId); !j) return j;
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

std::vector<PlaylistEntry> PlaylistStore::playlistsContaining(int64_t trackId) const {
  Statement st = conn_.prepare(
      "SELECT p.id, p.name FROM playlists p JOIN playlist_tracks pt ON pt.playlist_id = p.id WHERE "
      "pt.track_id = ? ORDER BY p.name");
  st.bind(1, trackId);
  return readEntries(st, false);
}

std::optional<int64_t> PlaylistStore::playlistByPath(const std::string& path) const {
  // The depth bound keeps a damaged tree with a cycle from recursing forever.
  Statement st = conn_.prepare(
      "WITH RECURSIVE up(id, full, parent, depth) AS (\n"
      "  SELECT id, name, parent_id, 0 FROM playlists\n"
      "  UNION ALL\n"
      "  SELECT u.id, p.name || ' / ' || u.full, p.parent_id, u.depth + 1\n"
      "  FROM up u JOIN playlists p ON p.id = u.parent WHERE u.depth < 64\n"
      ")\n"
      "SELECT id FROM up WHERE parent IS NULL AND full = ? LIMIT 1");
  st.bind(1, path);
  if (!st.step()) return std::nullopt;
  return st.int64(0);
}

std::vector<CrateNode> PlaylistStore::crateTree() const {
  std::vector<CrateNode> flat;
  {
    Statement st = conn_.prepare(
        "SELECT p.id, p.name, p.parent_id, p.kind, COALESCE(s.name, ''), p.color,\n"
        "  (SELECT COUNT(*) FROM playlist_tracks m WHERE m.playlist_id = p.id)\n"
        "FROM playlists p LEFT JOIN sources s ON s.id = p.source_id\n"
        "ORDER BY p.name COLLATE NOCASE, p.id");
    while (st.step()) {
      CrateNode n;
      n.id = st.int64(0);
      n.name = st.text(1);
      n.parentId = st.optInt64(2);
      n.kind = st.text(3);
      n.sourceName = st.text(4);
      n.color = st.optText(5);
      n.trackCount = st.int64(6);
      flat.push_back(std::move(n));
    }
  }
  std::unordered_map<int64_t, size_t> at;
  for (size_t i = 0; i < flat.size(); ++i) at.emplace(flat[i].id, i);
  std::vector<std::vector<size_t>> children(flat.size());
  std::vector<size_t> tops;
  for (size_t i = 0; i < flat.size(); ++i) {
    const auto parent = flat[i].parentId ? at.find(*flat[i].parentId) : at.end();
    if (parent == at.end())
      tops.push_back(i);
    else
      children[parent->second].push_back(i);
  }
  std::vector<bool> placed(flat.size(), false);
  std::function<CrateNode(size_t)> build = [&](size_t i) {
    placed[i] = true;
    CrateNode node = flat[i];
    for (size_t c : children[i])
      if (!placed[c]) node.children.push_back(build(c));
    return node;
  };
  std::vector<CrateNode> roots;
  for (size_t i : tops) roots.push_back(build(i));
  // Nodes on a cycle never reach the top; show them there rather than lose them.
  for (size_t i = 0; i < flat.size(); ++i)
    if (!placed[i]) roots.push_back(build(i));
  return roots;
}

// ---- members ----------------------------------------------------------------

std::vector<int64_t> PlaylistStore::orderedTrackIds(int64_t playlistId) const {
  Statement st = conn_.prepare(
      "SELECT track_id FROM playlist_tracks WHERE playlist_id=? ORDER BY position, rowid");
  st.bind(1, playlistId);
  std::vector<int64_t> out;
  while (st.step()) out.push_back(st.int64(0));
  return out;
}

Status PlaylistStore::insertMembers(int64_t playlistId, std::span<const int64_t> ids,
                                    int64_t firstPosition) {
  Statement ins = conn_.prepare(
      "INSERT OR IGNORE INTO playlist_tracks(playlist_id, track_id, position) VALUES(?,?,?)");
  int64_t position = firstPosition;
  for (int64_t id : ids) {
    ins.reset();
    if (ins.bind(1, playlistId).bind(2, id).bind(3, position++).stepCode() != SQLITE_DONE) {
      return conn_.lastStatus();
    }
  }
  return Status::ok();
}

Result<std::string> PlaylistStore::journaledMembers(int64_t playlistId, const std::string& opName,
                                                    const std::function<Status()>& edit) {
  if (!playlist(playlistId)) {
    return Status::notFound("no playlist with id " + std::to_string(playlistId));
  }
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const std::string opId = journal_.begin(opName);
  if (Status j = journal_.snapshotPlaylist(opId, opName, playlistId); !j) return j;
  if (Status edited = edit(); !edited) return edited;
  if (Status j = journal_.seal(opId); !j) return j;
  if (Status kept = tx.commit(); !kept) return kept;
  return opId;
}

Result<std::string> PlaylistStore::addToPlaylist(std::span<const int64_t> ids, int64_t playlistId) {
  return journaledMembers(playlistId, "Add to Playlist", [&]() -> Status {
    // A track is a member once; adding it again keeps its place.
    const auto current = orderedTrackIds(playlistId);
    std::set<int64_t> present(current.begin(), current.end());
    std::vector<int64_t> fresh;
    for (int64_t id : ids)
      if (present.insert(id).second) fresh.push_back(id);
    const int64_t next =
        conn_
            .scalarInt(
                "SELECT COALESCE(MAX(position), -1) + 1 FROM playlist_tracks WHERE "
                "playlist_id = " +
                std::to_string(playlistId))
            .value_or(0);
    return insertMembers(playlistId, fresh, next);
  });
}

Result<std::string> PlaylistStore::removeFromPlaylist(std::span<const int64_t> ids,
                                                      int64_t playlistId) {
  return journaledMembers(playlistId, "Remove from Playlist", [&]() -> Status {
    if (auto error = conn_.execChecked(
            "DELETE FROM playlist_tracks WHERE playlist_id=" + std::to_string(playlistId) +
            " AND track_id IN (" + joinIds(ids) + ")")) {
      return Status::failed(*error);
    }
    return Status::ok();
  });
}

Result<std::string> PlaylistStore::reorderPlaylist(int64_t playlistId,
                                                   std::span<const int64_t> ids) {
  return journaledMembers(playlistId, "Reorder Playlist", [&]() -> Status {
    if (auto error = conn_.execChecked("DELETE FROM playlist_tracks WHERE playlist_id=" +
                                       std::to_string(playlistId))) {
      return Status::failed(*error);
    }
    Statement ins = conn_.prepare(
        "INSERT OR REPLACE INTO playlist_tracks(playlist_id, track_id, position) VALUES(?,?,?)");
    int64_t position = 0;
    for (int64_t id : ids) {
      ins.reset();
      if (ins.bind(1, playlistId).bind(2, id).bind(3, position++).stepCode() != SQLITE_DONE) {
        return conn_.lastStatus();
      }
    }
    return Status::ok();
  });
}

Status PlaylistStore::replacePlaylistTracks(int64_t playlistId, std::span<const int64_t> ids) {
  // Re-evaluating a smart playlist usually finds the same members; leave the
  // rows (and the WAL) alone then.
  const auto current = orderedTrackIds(playlistId);
  if (std::equal(current.begin(), current.end(), ids.begin(), ids.end())) return Status::ok();
  Transaction tx(conn_);
  if (!tx) return tx.status();
  Statement del = conn_.prepare("DELETE FROM playlist_tracks WHERE playlist_id = ?");
  if (del.bind(1, playlistId).stepCode() != SQLITE_DONE) {
    return conn_.lastStatus();
  }
  if (Status s = insertMembers(playlistId, ids, 0); !s) return s;
  return tx.commit();
}

int64_t PlaylistStore::playlistRowCount(int64_t playlistId) const {
  Statement st = conn_.prepare("SELECT COUNT(*) FROM playlist_tracks WHERE playlist_id = ?");
  st.bind(1, playlistId);
  return st.step() ? st.int64(0) : 0;
}

}  // namespace orvel
