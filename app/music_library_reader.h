// What the window shows of Apple Music before and beside a migration, read
// from the library XML Music exports: its playlists as a tree, where its
// files are, the details the catalogue may lack, and which entries are videos.
// Every call reads the file again, so it sees the latest export. A file that
// cannot be read or is not a Music library gives empty answers and a log
// line; nothing here throws.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orvel::app {

class MusicLibraryReader {
 public:
  // Persistent ids are always 16 upper-case hex digits.
  struct Playlist {
    std::string id{};
    std::string name{};
    std::string kind{};                  // "folder" or "playlist"
    std::string parentId{};              // empty at the top
    std::vector<std::string> itemIds{};  // the tracks' persistent ids, in order
  };

  struct Entry {
    std::string pid{}, title{}, artist{}, album{};
    std::string added{};  // as Music wrote it, e.g. "2024-03-01T10:00:00Z"
    int playCount = 0;
    std::optional<int> startMs{}, stopMs{}, totalMs{};
    std::string location{};  // the file's path
  };

  explicit MusicLibraryReader(std::filesystem::path xml) : xml_(std::move(xml)) {}

  // Without Music's own lists (the library, Music, Downloaded…).
  std::vector<Playlist> playlists() const;
  // "Folder / Sub / List" for a playlist id; empty when unknown.
  std::string fullPath(const std::string& id) const;
  std::map<std::string, std::string> locationsIfReadable() const;
  std::vector<Entry> extraEntries() const;
  std::map<std::string, bool> videoFlags() const;

 private:
  std::filesystem::path xml_;
};

}  // namespace orvel::app
