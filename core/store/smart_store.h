// Smart playlists: rules stored as JSON beside a 'smart' playlist node and
// evaluated as one SQL statement. Part of OrvelDB (smart()); same thread
// contract.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/store/smart_rules.h"
#include "core/store/store_area.h"

namespace orvel {

// A smart playlist saved from the editor or the command line.
struct SmartSaveResult {
  std::optional<int64_t> playlistId;  // none: refused, see error
  int64_t trackCount = 0;
  std::string opId;
  std::string error;
};

class SmartStore : public StoreArea {
 public:
  explicit SmartStore(OrvelDB& db) : StoreArea(db) {}

  // Track ids in the order the statement returns them; empty on SQL errors.
  std::vector<int64_t> smartQueryIds(const SmartPlaylist& playlist) const;
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
  // The rules document of an existing playlist, written as it is (no
  // journal, no members): for callers that keep their own record.
  Status saveSmartRules(int64_t playlistId, const SmartPlaylist& playlist);
};

}  // namespace orvel
