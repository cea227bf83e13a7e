// Smart playlists in the catalogue: running a rule set, keeping its JSON
// document in `smart_playlists`, and writing the evaluated ids back as the
// playlist's stored members so every reader of plain playlists sees them.
#include "core/store/orvel_db.h"

namespace orvel {

void OrvelDB::ensureSmartSchema() const {
  conn_.execIgnoring(
      "CREATE TABLE IF NOT EXISTS smart_playlists(\n"
      "  playlist_id INTEGER PRIMARY KEY, rules_json TEXT NOT NULL, live INTEGER NOT NULL)");
}

std::vector<int64_t> OrvelDB::smartQueryIds(const SmartPlaylist& playlist) const {
  const auto [sql, binds] = playlist.query();
  Statement st = conn_.prepare(sql);
  for (size_t i = 0; i < binds.size(); ++i) st.bind(static_cast<int>(i + 1), binds[i]);
  std::vector<int64_t> ids;
  for (;;) {
    const int rc = st.stepCode();
    if (rc == SQLITE_ROW) {
      ids.push_back(st.int64(0));
      continue;
    }
    if (rc != SQLITE_DONE) ids.clear();  // a half list would be a wrong list
    return ids;
  }
}

bool OrvelDB::saveSmartRules(int64_t playlistId, const SmartPlaylist& playlist) {
  ensureSmartSchema();
  Statement st = conn_.prepare(
      "INSERT OR REPLACE INTO smart_playlists(playlist_id, rules_json, live) VALUES(?,?,?)");
  st.bind(1, playlistId).bind(2, playlist.toJSON()).bind(3, playlist.liveUpdate ? 1 : 0);
  if (st.stepCode() != SQLITE_DONE) {
    lastError_ = conn_.errorMessage();
    return false;
  }
  return true;
}

std::optional<SmartPlaylist> OrvelDB::loadSmartRules(int64_t playlistId) const {
  Statement st = conn_.prepare("SELECT rules_json FROM smart_playlists WHERE playlist_id = ?");
  st.bind(1, playlistId);
  if (!st.step() || st.isNull(0)) return std::nullopt;
  return SmartPlaylist::fromJSON(st.textView(0));
}

std::map<int64_t, bool> OrvelDB::smartPlaylists() const {
  ensureSmartSchema();
  std::map<int64_t, bool> out;
  Statement rules = conn_.prepare("SELECT playlist_id, live FROM smart_playlists");
  while (rules.step()) out[rules.int64(0)] = rules.int64(1) != 0;
  // A smart playlist whose rules are gone still counts; it shows its members.
  Statement kinds = conn_.prepare("SELECT id FROM playlists WHERE kind = 'smart'");
  while (kinds.step()) out.emplace(kinds.int64(0), false);
  return out;
}

SmartSaveResult OrvelDB::saveSmartPlaylist(const SmartPlaylist& playlist,
                                           std::optional<int64_t> existing) {
  SmartSaveResult result;
  if (playlist.rules.empty()) {
    result.error = "Add at least one rule — an empty one matches everything";
    return result;
  }
  if (existing && !this->playlist(*existing)) {
    result.error = "no playlist with id " + std::to_string(*existing);
    return result;
  }
  const std::vector<int64_t> ids = smartQueryIds(playlist);
  ensureSmartSchema();

  const std::string opName = existing ? "Edit Smart Playlist" : "New Smart Playlist";
  Transaction tx(conn_);
  const std::string opId = journal_.begin(opName);
  int64_t id = 0;
  if (existing) {
    id = *existing;
    journal_.snapshotRow(opId, opName, "playlists", id);
    journal_.snapshotPlaylist(opId, opName, id);
    journal_.snapshotRow(opId, opName, "smart_playlists", id);
    Statement up = conn_.prepare("UPDATE playlists SET name = ?, kind = 'smart' WHERE id = ?");
    if (up.bind(1, playlist.name).bind(2, id).stepCode() != SQLITE_DONE) {
      result.error = conn_.errorMessage();
      return result;
    }
  } else {
    const auto created = insertPlaylist(playlist.name, std::nullopt, "smart", orvelSourceId());
    if (!created) {
      result.error = lastError_;
      return result;
    }
    id = *created;
    journal_.recordCreated(opId, opName, "playlists", id);
  }
  if (!replacePlaylistTracks(id, ids) || !saveSmartRules(id, playlist)) {
    result.error = lastError_;
    return result;
  }
  if (existing) {
    journal_.seal(opId);
  } else {
    // Undo of the creation clears the members and the rules before the row.
    journal_.record(opId, opName, "playlists", id, std::string(Journal::kMembersField), "[]",
                    journal_.membersJSON(id));
    journal_.recordCreated(opId, opName, "smart_playlists", id);
  }
  if (!tx.commit()) {
    result.error = "the playlist could not be saved";
    return result;
  }
  result.playlistId = id;
  result.trackCount = static_cast<int64_t>(ids.size());
  result.opId = opId;
  return result;
}

std::optional<std::vector<int64_t>> OrvelDB::refreshSmartPlaylist(int64_t playlistId) {
  const auto smart = smartPlaylists();
  const auto it = smart.find(playlistId);
  if (it == smart.end() || !it->second) return std::nullopt;
  const auto rules = loadSmartRules(playlistId);
  if (!rules) return std::nullopt;
  std::vector<int64_t> ids = smartQueryIds(*rules);
  replacePlaylistTracks(playlistId, ids);
  return ids;
}

}  // namespace orvel
