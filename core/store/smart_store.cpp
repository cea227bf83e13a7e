// Smart playlists in the catalogue: running a rule set, keeping its JSON
// document in `smart_playlists`, and writing the evaluated ids back as the
// playlist's stored members so every reader of plain playlists sees them.
#include "core/store/log.h"
#include "core/store/orvel_db.h"

namespace orvel {

std::vector<int64_t> SmartStore::smartQueryIds(const SmartPlaylist& playlist) const {
  const auto [sql, binds] = playlist.query();
  Statement st = conn_.prepare(sql);
  for (size_t i = 0; i < binds.size(); ++i)
    std::visit([&](const auto& v) { st.bind(static_cast<int>(i + 1), v); }, binds[i]);
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

Status SmartStore::saveSmartRules(int64_t playlistId, const SmartPlaylist& playlist) {
  Statement st = conn_.prepare(
      "INSERT OR REPLACE INTO smart_playlists(playlist_id, rules_json, live) VALUES(?,?,?)");
  st.bind(1, playlistId).bind(2, playlist.toJSON()).bind(3, playlist.liveUpdate ? 1 : 0);
  if (st.stepCode() != SQLITE_DONE) {
    return conn_.lastStatus();
  }
  return Status::ok();
}

std::optional<SmartPlaylist> SmartStore::loadSmartRules(int64_t playlistId) const {
  Statement st = conn_.prepare("SELECT rules_json FROM smart_playlists WHERE playlist_id = ?");
  st.bind(1, playlistId);
  if (!st.step() || st.isNull(0)) return std::nullopt;
  return SmartPlaylist::fromJSON(st.textView(0));
}

std::map<int64_t, bool> SmartStore::smartPlaylists() const {
  std::map<int64_t, bool> out;
  Statement rules = conn_.prepare("SELECT playlist_id, live FROM smart_playlists");
  while (rules.step()) out[rules.int64(0)] = rules.int64(1) != 0;
  // A smart playlist whose rules are gone still counts; it shows its members.
  Statement kinds = conn_.prepare("SELECT id FROM playlists WHERE kind = 'smart'");
  while (kinds.step()) out.emplace(kinds.int64(0), false);
  return out;
}

SmartSaveResult SmartStore::saveSmartPlaylist(const SmartPlaylist& playlist,
                                              std::optional<int64_t> existing) {
  SmartSaveResult result;
  if (auto why = playlist.problem()) {
    result.error = *why;
    return result;
  }
  if (existing && !db_.playlists().playlist(*existing)) {
    result.error = "no playlist with id " + std::to_string(*existing);
    return result;
  }
  const std::vector<int64_t> ids = smartQueryIds(playlist);

  const std::string opName = existing ? "Edit Smart Playlist" : "New Smart Playlist";
  // Every step reports the same way: the reason in result.error, and the
  // transaction rolls back whatever was written.
  const auto fail = [&](const Status& why) {
    result.error = why.message();
    return result;
  };
  Transaction tx(conn_);
  if (!tx) return fail(tx.status());
  const std::string opId = journal_.begin(opName);
  int64_t id = 0;
  PlaylistStore& playlists = db_.playlists();
  if (existing) {
    id = *existing;
    for (Status step : {journal_.snapshotRow(opId, opName, "playlists", id),
                        journal_.snapshotPlaylist(opId, opName, id),
                        journal_.snapshotRow(opId, opName, "smart_playlists", id)})
      if (!step) return fail(step);
    Statement up = conn_.prepare("UPDATE playlists SET name = ?, kind = 'smart' WHERE id = ?");
    if (up.bind(1, playlist.name).bind(2, id).stepCode() != SQLITE_DONE)
      return fail(conn_.lastStatus());
  } else {
    const auto source = db_.tracks().orvelSourceId();
    if (!source) return fail(source.status());
    const auto created = playlists.insertPlaylist(playlist.name, std::nullopt, "smart", *source);
    if (!created) return fail(created.status());
    id = *created;
    if (Status j = journal_.recordCreated(opId, opName, "playlists", id); !j) return fail(j);
  }
  if (Status s = playlists.replacePlaylistTracks(id, ids); !s) return fail(s);
  if (Status s = saveSmartRules(id, playlist); !s) return fail(s);
  if (existing) {
    if (Status j = journal_.seal(opId); !j) return fail(j);
  } else {
    // Undo of the creation clears the members and the rules before the row.
    if (Status j =
            journal_.record(opId, opName, "playlists", id, std::string(Journal::kMembersField),
                            "[]", journal_.membersJSON(id));
        !j)
      return fail(j);
    if (Status j = journal_.recordCreated(opId, opName, "smart_playlists", id); !j) return fail(j);
  }
  if (Status kept = tx.commit(); !kept) return fail(kept);
  result.playlistId = id;
  result.trackCount = static_cast<int64_t>(ids.size());
  result.opId = opId;
  return result;
}

std::optional<std::vector<int64_t>> SmartStore::refreshSmartPlaylist(int64_t playlistId) {
  const auto smart = smartPlaylists();
  const auto it = smart.find(playlistId);
  if (it == smart.end() || !it->second) return std::nullopt;
  const auto rules = loadSmartRules(playlistId);
  if (!rules) return std::nullopt;
  std::vector<int64_t> ids = smartQueryIds(*rules);
  // The evaluation stands even when its stored copy cannot be updated; the
  // next refresh tries again.
  if (Status stored = db_.playlists().replacePlaylistTracks(playlistId, ids); !stored)
    note("smart playlist " + std::to_string(playlistId) +
         ": members not stored: " + stored.message());
  return ids;
}

}  // namespace orvel
