// The crate and playlist tree and its members. Journaled edits return their
// op id. Part of OrvelDB (playlists()); same thread contract.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/store/crate_node.h"
#include "core/store/store_area.h"

namespace orvel {

class PlaylistStore : public StoreArea {
 public:
  explicit PlaylistStore(OrvelDB& db) : StoreArea(db) {}

  // ---- the tree -------------------------------------------------------------
  // A playlist of this program, at the top or under `parent`.
  Result<int64_t> create(const std::string& name, std::optional<int64_t> parent,
                         std::string_view kind = "playlist");
  Result<std::string> renamePlaylist(int64_t id, const std::string& name);
  Result<std::string> setPlaylistColor(int64_t id, const std::optional<std::string>& color);
  std::map<int64_t, std::string> playlistColors() const;
  // Refused for a move under the node itself or one of its descendants.
  Result<std::string> setPlaylistParent(int64_t id, std::optional<int64_t> parent);
  bool isDescendant(int64_t node, int64_t ancestor) const;
  // Deletes the node, its whole subtree and their members in one operation.
  Result<std::string> deletePlaylist(int64_t id);
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

  // ---- members --------------------------------------------------------------
  std::vector<int64_t> orderedTrackIds(int64_t playlistId) const;
  // Appends the tracks not yet in the playlist, in the given order.
  Result<std::string> addToPlaylist(std::span<const int64_t> ids, int64_t playlistId);
  Result<std::string> removeFromPlaylist(std::span<const int64_t> ids, int64_t playlistId);
  // The members become exactly `ids`, in that order.
  Result<std::string> reorderPlaylist(int64_t playlistId, std::span<const int64_t> ids);
  // The same replacement, unjournaled: for members computed by the program.
  Status replacePlaylistTracks(int64_t playlistId, std::span<const int64_t> ids);
  int64_t playlistRowCount(int64_t playlistId) const;

 private:
  friend class SmartStore;
  friend class SeratoStore;

  Result<int64_t> insertPlaylist(const std::string& name, std::optional<int64_t> parent,
                                 std::string_view kind, int64_t sourceId);
  Result<std::string> journaledMembers(int64_t playlistId, const std::string& opName,
                                       const std::function<Status()>& edit);
  Status insertMembers(int64_t playlistId, std::span<const int64_t> ids, int64_t firstPosition);
  std::vector<int64_t> childPlaylistIds(int64_t id) const;
};

}  // namespace orvel
