// The playlist tree as readers see it. Crates, playlists, smart playlists,
// studio projects and releases are all rows of `playlists`; their members
// are `playlist_tracks` rows, ordered by position and then insertion.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orvel {

// Fixed sources that own subtrees of their own.
inline constexpr int64_t kStudioSourceId = 5;  // projects
inline constexpr int64_t kDeskSourceId = 7;    // releases

struct CrateNode {
  int64_t id = 0;
  std::string name;
  std::optional<int64_t> parentId;
  std::string kind;        // crate | playlist | smart
  std::string sourceName;  // orvel, serato, music, studio, desk
  std::optional<std::string> color;
  int64_t trackCount = 0;  // member rows of this node alone
  std::vector<CrateNode> children;
};

// A node named for a menu or a picker.
struct PlaylistEntry {
  int64_t id = 0;
  std::string name;
  std::optional<int64_t> parentId;
  std::string sourceName;
  int64_t trackCount = 0;
};

}  // namespace orvel
