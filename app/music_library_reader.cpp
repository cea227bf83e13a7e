#include "app/music_library_reader.h"

#include <QFile>
#include <QUrl>
#include <QXmlStreamReader>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <set>

#include "app/klog.h"

namespace orvel::app {
namespace {

// A property-list value; dates, data and reals are kept as their text.
struct Node {
  enum class Type { text, integer, boolean, dict, array } type = Type::text;
  std::string text{};
  std::vector<std::pair<std::string, Node>> dict{};
  std::vector<Node> array{};

  const Node* get(std::string_view key) const {
    for (const auto& [k, v] : dict)
      if (k == key) return &v;
    return nullptr;
  }
  std::string str(std::string_view key) const {
    const Node* n = get(key);
    return n && n->type != Type::dict && n->type != Type::array ? n->text : std::string();
  }
  bool flag(std::string_view key) const {
    const Node* n = get(key);
    return n && n->type == Type::boolean && n->text == "true";
  }
  std::optional<long long> integer(std::string_view key) const {
    const Node* n = get(key);
    long long v = 0;
    if (!n || n->type != Type::integer) return std::nullopt;
    const auto [end, ec] = std::from_chars(n->text.data(), n->text.data() + n->text.size(), v);
    if (ec != std::errc() || end != n->text.data() + n->text.size()) return std::nullopt;
    return v;
  }
};

// Music's libraries nest four deep; anything far deeper is not one of them
// and must not exhaust the stack.
constexpr int kMaxDepth = 32;

bool parseValue(QXmlStreamReader& xml, Node& out, int depth);

bool parseChildren(QXmlStreamReader& xml, Node& out, int depth) {
  std::string key;
  bool haveKey = false;
  while (xml.readNextStartElement()) {
    if (out.type == Node::Type::dict && xml.name() == u"key") {
      key = xml.readElementText().toStdString();
      haveKey = true;
      continue;
    }
    Node child;
    if (!parseValue(xml, child, depth + 1)) return false;
    if (out.type == Node::Type::array) {
      out.array.push_back(std::move(child));
    } else if (haveKey) {
      out.dict.emplace_back(std::move(key), std::move(child));
      haveKey = false;
    }
  }
  return !xml.hasError();
}

bool parseValue(QXmlStreamReader& xml, Node& out, int depth) {
  if (depth > kMaxDepth) return false;
  const auto name = xml.name();
  if (name == u"dict" || name == u"array") {
    out.type = name == u"dict" ? Node::Type::dict : Node::Type::array;
    return parseChildren(xml, out, depth);
  }
  if (name == u"true" || name == u"false") {
    out.type = Node::Type::boolean;
    out.text = name == u"true" ? "true" : "false";
    xml.skipCurrentElement();
    return !xml.hasError();
  }
  out.type = name == u"integer" ? Node::Type::integer : Node::Type::text;
  out.text = xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed().toStdString();
  return !xml.hasError();
}

// The library's top dictionary, or nothing when the file is unreadable or
// not a Music library.
std::unique_ptr<Node> load(const std::filesystem::path& path) {
  QFile file(QString::fromStdString(path.string()));
  if (!file.open(QIODevice::ReadOnly)) return nullptr;
  QXmlStreamReader xml(&file);
  if (!xml.readNextStartElement() || xml.name() != u"plist" || !xml.readNextStartElement() ||
      xml.name() != u"dict")
    return nullptr;
  auto root = std::make_unique<Node>();
  if (!parseValue(xml, *root, 0)) return nullptr;
  const Node* tracks = root->get("Tracks");
  if (!tracks || tracks->type != Node::Type::dict) return nullptr;
  return root;
}

std::string pidText(const std::string& hex) {
  unsigned long long v = 0;
  if (hex.empty() || hex.size() > 16) return {};
  const auto [end, ec] = std::from_chars(hex.data(), hex.data() + hex.size(), v, 16);
  if (ec != std::errc() || end != hex.data() + hex.size()) return {};
  char out[17];
  std::snprintf(out, sizeof out, "%016llX", v);
  return out;
}

std::string pathOf(const std::string& url) {
  const QUrl u(QString::fromStdString(url));
  return u.isLocalFile() ? u.toLocalFile().toStdString() : std::string();
}

template <typename Fn>
void eachTrack(const Node& root, Fn&& fn) {
  for (const auto& [key, track] : root.get("Tracks")->dict) {
    if (track.type != Node::Type::dict) continue;
    const std::string pid = pidText(track.str("Persistent ID"));
    if (!pid.empty()) fn(key, pid, track);
  }
}

std::optional<int> ms(const Node& track, std::string_view key) {
  const auto v = track.integer(key);
  if (!v || *v < 0 || *v > INT32_MAX) return std::nullopt;
  return static_cast<int>(*v);
}

}  // namespace

std::vector<MusicLibraryReader::Playlist> MusicLibraryReader::playlists() const {
  const auto root = load(xml_);
  if (!root) {
    klog(
        "MusicLibraryReader: no access to the Music library (Settings > Privacy > Media & "
        "Apple Music)");
    return {};
  }
  std::map<std::string, std::string> pidOfTrack;
  eachTrack(*root, [&](const std::string& key, const std::string& pid, const Node& track) {
    const auto id = track.integer("Track ID");
    pidOfTrack[id ? std::to_string(*id) : key] = pid;
  });
  std::vector<Playlist> out;
  const Node* lists = root->get("Playlists");
  if (!lists || lists->type != Node::Type::array) return out;
  for (const Node& list : lists->array) {
    if (list.type != Node::Type::dict || list.flag("Master") || list.get("Distinguished Kind"))
      continue;
    Playlist p;
    p.id = pidText(list.str("Playlist Persistent ID"));
    if (p.id.empty()) continue;
    p.name = list.str("Name");
    p.kind = list.flag("Folder") ? "folder" : "playlist";
    p.parentId = pidText(list.str("Parent Persistent ID"));
    if (const Node* items = list.get("Playlist Items"); items && !list.flag("Folder"))
      for (const Node& item : items->array) {
        const auto id = item.integer("Track ID");
        if (!id) continue;
        const auto at = pidOfTrack.find(std::to_string(*id));
        if (at != pidOfTrack.end()) p.itemIds.push_back(at->second);
      }
    out.push_back(std::move(p));
  }
  return out;
}

std::string MusicLibraryReader::fullPath(const std::string& id) const {
  std::map<std::string, const Playlist*> byId;
  const auto lists = playlists();
  for (const Playlist& p : lists) byId[p.id] = &p;
  std::string path;
  std::set<std::string> seen;
  for (auto at = byId.find(id); at != byId.end() && seen.insert(at->first).second;
       at = byId.find(at->second->parentId))
    path = path.empty() ? at->second->name : at->second->name + " / " + path;
  return path;
}

std::map<std::string, std::string> MusicLibraryReader::locationsIfReadable() const {
  const auto root = load(xml_);
  if (!root) {
    klog("MusicLibraryReader.locations: no access to the Music library");
    return {};
  }
  std::map<std::string, std::string> out;
  eachTrack(*root, [&](const std::string&, const std::string& pid, const Node& track) {
    const std::string path = pathOf(track.str("Location"));
    if (!path.empty()) out[pid] = path;
  });
  return out;
}

std::vector<MusicLibraryReader::Entry> MusicLibraryReader::extraEntries() const {
  const auto root = load(xml_);
  if (!root) {
    klog("MusicLibraryReader.extraEntries: no access to the Music library");
    return {};
  }
  std::vector<Entry> out;
  eachTrack(*root, [&](const std::string&, const std::string& pid, const Node& track) {
    Entry e;
    e.pid = pid;
    e.title = track.str("Name");
    e.artist = track.str("Artist");
    e.album = track.str("Album");
    e.added = track.str("Date Added");
    e.playCount = ms(track, "Play Count").value_or(0);
    e.startMs = ms(track, "Start Time");
    e.stopMs = ms(track, "Stop Time");
    e.totalMs = ms(track, "Total Time");
    e.location = pathOf(track.str("Location"));
    out.push_back(std::move(e));
  });
  return out;
}

std::map<std::string, bool> MusicLibraryReader::videoFlags() const {
  const auto root = load(xml_);
  if (!root) {
    klog("MusicLibraryReader.videoFlags: no access to the Music library");
    return {};
  }
  std::map<std::string, bool> out;
  eachTrack(*root, [&](const std::string&, const std::string& pid, const Node& track) {
    out[pid] = track.flag("Has Video") || track.flag("Movie") || track.flag("Music Video") ||
               track.flag("TV Show");
  });
  return out;
}

}  // namespace orvel::app
