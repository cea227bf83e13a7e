// Library XML as Music (or iTunes) exports it, built piece by piece for the
// migration tests: track entries, playlist entries, and the document around
// them.
#pragma once

#include <string>
#include <vector>

namespace orvel::app::testing {

// One entry of "Tracks"; `more` holds further keys ("<key>Rating</key>…").
inline std::string musicTrackXml(int id, const std::string& pid, const std::string& url,
                                 const std::string& more) {
  return "<key>" + std::to_string(id) + "</key><dict><key>Track ID</key><integer>" +
         std::to_string(id) + "</integer><key>Persistent ID</key><string>" + pid +
         "</string><key>Location</key><string>" + url + "</string>" + more + "</dict>";
}

// One entry of "Playlists"; an empty `parent` puts it at the top.
inline std::string musicPlaylistXml(const std::string& name, const std::string& pid,
                                    const std::string& parent, const std::string& more,
                                    const std::vector<int>& items = {}) {
  std::string s = "<dict><key>Name</key><string>" + name +
                  "</string><key>Playlist Persistent ID</key><string>" + pid + "</string>";
  if (!parent.empty()) s += "<key>Parent Persistent ID</key><string>" + parent + "</string>";
  s += more;
  if (!items.empty()) {
    s += "<key>Playlist Items</key><array>";
    for (int i : items)
      s += "<dict><key>Track ID</key><integer>" + std::to_string(i) + "</integer></dict>";
    s += "</array>";
  }
  return s + "</dict>";
}

inline std::string musicLibraryXml(const std::string& tracks, const std::string& playlists) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\"><dict><key>Major Version</key><integer>1</integer>"
         "<key>Tracks</key><dict>" +
         tracks + "</dict><key>Playlists</key><array>" + playlists + "</array></dict></plist>\n";
}

}  // namespace orvel::app::testing
