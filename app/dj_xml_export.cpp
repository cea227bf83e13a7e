#include "app/dj_xml_export.h"

#include <fmt/format.h>

#include <QFile>
#include <QString>
#include <QXmlStreamWriter>
#include <algorithm>
#include <array>
#include <cctype>
#include <unordered_map>
#include <vector>

#include "app/file_output.h"
#include "app/klog.h"
#include "core/store/orvel_db.h"
#include "core/store/track_values.h"

#ifndef ORVEL_VERSION
#define ORVEL_VERSION "0"
#endif

namespace orvel::app {
namespace fs = std::filesystem;

namespace {

// What the exported nodes hold: each track once, in the order first met, and
// each node's members that made it into the collection.
struct Collection {
  std::vector<TrackRow> tracks;
  std::unordered_map<int64_t, bool> usable;  // every track id met: in the collection or not
  std::unordered_map<int64_t, std::vector<int64_t>> members;
};

const CrateNode* findNode(const std::vector<CrateNode>& nodes, int64_t id) {
  for (const CrateNode& n : nodes) {
    if (n.id == id) return &n;
    if (const CrateNode* below = findNode(n.children, id)) return below;
  }
  return nullptr;
}

void gather(const OrvelDB& db, const CrateNode& node, Collection& c) {
  // Removed tracks keep their playlist rows (for undo); DJ software must not see them.
  const std::vector<int64_t> live =
      db.tracks().existingIds(db.playlists().orderedTrackIds(node.id));
  std::vector<int64_t>& members = c.members[node.id];
  for (int64_t id : live) {
    auto [at, fresh] = c.usable.try_emplace(id, false);
    if (fresh) {
      auto row = db.tracks().loadTrack(id);
      if (row && !row->path().empty()) {
        at->second = true;
        c.tracks.push_back(std::move(*row));
      }
    }
    if (at->second) members.push_back(id);
  }
  for (const CrateNode& child : node.children) gather(db, child, c);
}

// Text from the catalogue, without the control characters XML 1.0 cannot
// carry: one stray byte in a tag must not make the whole file unreadable.
QString xmlText(std::string_view s) {
  QString q = QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size()));
  q.removeIf([](QChar c) {
    const char16_t u = c.unicode();
    return (u < 0x20 && u != '\t' && u != '\n' && u != '\r') || u == 0xFFFE || u == 0xFFFF;
  });
  return q;
}

QString number(int64_t n) {
  return QString::number(n);
}

QString fixed(double v, int decimals) {
  return QString::fromStdString(fmt::format("{:.{}f}", v, decimals));
}

// The path as a file URL's path: bytes outside the unreserved set and a few
// harmless delimiters are %-encoded, so spaces, '#', '?', '%' and non-ASCII
// names survive the importer's URL parsing.
std::string locationOf(std::string_view path) {
  std::string out = "file://localhost";
  if (path.empty() || path.front() != '/') out += '/';
  for (const char ch : path) {
    const auto b = static_cast<unsigned char>(ch);
    if (std::isalnum(b) || std::string_view("-._~/!$'()*,:@").find(ch) != std::string_view::npos)
      out += ch;
    else
      out += fmt::format("%{:02X}", b);
  }
  return out;
}

// "MP3 File", as the importers name kinds.
std::string kindOf(const TrackRow& t) {
  std::string ext = t.ext();
  if (ext.empty()) return {};
  if (ext == "aif") ext = "aiff";
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return ext + " File";
}

// The year as the number importers expect: "2019" of "2019-05-01", else 0.
std::string yearOf(std::string_view year) {
  const bool fourDigits =
      year.size() >= 4 && std::all_of(year.begin(), year.begin() + 4,
                                      [](unsigned char c) { return std::isdigit(c) != 0; });
  return fourDigits ? std::string(year.substr(0, 4)) : "0";
}

std::optional<std::array<int, 3>> rgbOf(const std::string& color) {
  if (color.size() != 7 || color[0] != '#' ||
      !std::all_of(color.begin() + 1, color.end(),
                   [](unsigned char c) { return std::isxdigit(c) != 0; }))
    return std::nullopt;
  const auto part = [&](size_t at) { return std::stoi(color.substr(at, 2), nullptr, 16); };
  return std::array<int, 3>{part(1), part(3), part(5)};
}

// Serato's grid is the one a DJ has checked by ear; any other is a fallback.
std::vector<BeatAnchor> gridOf(const OrvelDB& db, int64_t trackId) {
  std::vector<SourceGrid> grids = db.cues().beatGrids(trackId);
  std::erase_if(grids, [](const SourceGrid& g) { return g.anchors.empty(); });
  if (grids.empty()) return {};
  const auto serato = std::find_if(grids.begin(), grids.end(),
                                   [](const SourceGrid& g) { return g.sourceName == "serato"; });
  return serato != grids.end() ? serato->anchors : grids.front().anchors;
}

void writePositionMark(QXmlStreamWriter& xml, const CueRow& cue) {
  const bool loop = cue.kind == "loop" && cue.lengthMs && *cue.lengthMs > 0;
  // Only the eight hot slots have numbers; the automatic pair, imported
  // memory cues and anything beyond become memory cues.
  const bool hot = cue.bank != "memory" && cue.index >= 0 && cue.index < kCueSlots;
  xml.writeStartElement("POSITION_MARK");
  xml.writeAttribute("Name", xmlText(cue.name));
  xml.writeAttribute("Type", loop ? "4" : "0");
  xml.writeAttribute("Start", fixed(cue.positionMs / 1000.0, 3));
  if (loop) xml.writeAttribute("End", fixed((cue.positionMs + *cue.lengthMs) / 1000.0, 3));
  xml.writeAttribute("Num", number(hot ? cue.index : -1));
  if (const auto rgb = rgbOf(cue.color)) {
    xml.writeAttribute("Red", number((*rgb)[0]));
    xml.writeAttribute("Green", number((*rgb)[1]));
    xml.writeAttribute("Blue", number((*rgb)[2]));
  }
  xml.writeEndElement();
}

void writeTrack(QXmlStreamWriter& xml, const OrvelDB& db, const TrackRow& t) {
  xml.writeStartElement("TRACK");
  xml.writeAttribute("TrackID", number(t.id));
  xml.writeAttribute("Name", xmlText(t.title()));
  xml.writeAttribute("Artist", xmlText(t.artist()));
  xml.writeAttribute("Album", xmlText(t.album()));
  xml.writeAttribute("Genre", xmlText(t.genre()));
  xml.writeAttribute("Grouping", xmlText(t.grouping()));
  xml.writeAttribute("Comments", xmlText(t.comment()));
  xml.writeAttribute("Label", xmlText(t.label()));
  xml.writeAttribute("Year", QString::fromStdString(yearOf(t.year())));
  xml.writeAttribute("Kind", QString::fromStdString(kindOf(t)));
  xml.writeAttribute("Size", number(t.sizeBytes));
  xml.writeAttribute("TotalTime", number(t.durationMs.value_or(0) / 1000));
  // A tempo an older catalogue let in (-120, 1e308) is no tempo to hand on.
  xml.writeAttribute("AverageBpm", fixed(t.bpm && isTempo(*t.bpm) ? *t.bpm : 0.0, 2));
  xml.writeAttribute("BitRate", number(t.bitrateKbps.value_or(0)));
  xml.writeAttribute("SampleRate", number(t.sampleRate.value_or(0)));
  xml.writeAttribute("Tonality", xmlText(t.key()));
  xml.writeAttribute("DateAdded", QString::fromStdString(t.dateAddedText()));
  xml.writeAttribute("Location", QString::fromStdString(locationOf(t.path())));
  for (const BeatAnchor& a : gridOf(db, t.id)) {
    xml.writeStartElement("TEMPO");
    xml.writeAttribute("Inizio", fixed(a.posMs / 1000.0, 3));
    xml.writeAttribute("Bpm", fixed(a.bpm, 2));
    xml.writeAttribute("Metro", "4/4");
    xml.writeAttribute("Battito", "1");
    xml.writeEndElement();
  }
  for (const CueRow& cue : db.cues().cues(t.id)) writePositionMark(xml, cue);
  xml.writeEndElement();
}

void writePlaylist(QXmlStreamWriter& xml, const std::string& name,
                   const std::vector<int64_t>& members, int64_t& playlists) {
  xml.writeStartElement("NODE");
  xml.writeAttribute("Type", "1");
  xml.writeAttribute("Name", xmlText(name));
  xml.writeAttribute("KeyType", "0");  // members are named by TrackID
  xml.writeAttribute("Entries", number(static_cast<int64_t>(members.size())));
  for (int64_t id : members) {
    xml.writeEmptyElement("TRACK");
    xml.writeAttribute("Key", number(id));
  }
  xml.writeEndElement();
  ++playlists;
}

void writeNode(QXmlStreamWriter& xml, const CrateNode& node, const Collection& c,
               int64_t& playlists) {
  const std::vector<int64_t>& own = c.members.at(node.id);
  if (node.children.empty()) {
    writePlaylist(xml, node.name, own, playlists);
    return;
  }
  // Importers' folders cannot hold tracks; a crate that has both keeps its
  // own tracks in a playlist of its name, first inside its folder.
  xml.writeStartElement("NODE");
  xml.writeAttribute("Type", "0");
  xml.writeAttribute("Name", xmlText(node.name));
  xml.writeAttribute("Count",
                     number(static_cast<int64_t>(node.children.size() + (own.empty() ? 0 : 1))));
  if (!own.empty()) writePlaylist(xml, node.name, own, playlists);
  for (const CrateNode& child : node.children) writeNode(xml, child, c, playlists);
  xml.writeEndElement();
}

XmlExportResult refuse(std::string error) {
  klog("xml export failed: " + error);
  XmlExportResult result;
  result.error = std::move(error);
  return result;
}

}  // namespace

XmlExportResult exportXML(const OrvelDB& db, std::span<const int64_t> crateIds,
                          const fs::path& file) {
  std::string ext = file.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (ext != ".xml") return refuse("The export file must end in .xml");

  const std::vector<CrateNode> tree = db.playlists().crateTree();
  std::vector<CrateNode> nodes;
  if (crateIds.empty()) {
    nodes = tree;
  } else {
    for (int64_t id : crateIds) {
      const CrateNode* node = findNode(tree, id);
      if (!node) return refuse(fmt::format("No crate with id {}", id));
      nodes.push_back(*node);
    }
  }
  Collection c;
  for (const CrateNode& node : nodes) gather(db, node, c);

  XmlExportResult result;
  const std::string why = writeWholeFile(file, [&](QIODevice& out) {
    QXmlStreamWriter xml(&out);
    xml.setAutoFormatting(true);
    xml.writeStartDocument();
    xml.writeStartElement("DJ_PLAYLISTS");
    xml.writeAttribute("Version", "1.0.0");
    xml.writeEmptyElement("PRODUCT");
    xml.writeAttribute("Name", "Orvel");
    xml.writeAttribute("Version", ORVEL_VERSION);
    xml.writeAttribute("Company", "Orvel");

    xml.writeStartElement("COLLECTION");
    xml.writeAttribute("Entries", number(static_cast<int64_t>(c.tracks.size())));
    for (const TrackRow& t : c.tracks) writeTrack(xml, db, t);
    xml.writeEndElement();

    xml.writeStartElement("PLAYLISTS");
    xml.writeStartElement("NODE");
    xml.writeAttribute("Type", "0");
    xml.writeAttribute("Name", "ROOT");
    xml.writeAttribute("Count", number(static_cast<int64_t>(nodes.size())));
    for (const CrateNode& node : nodes) writeNode(xml, node, c, result.playlists);
    xml.writeEndElement();
    xml.writeEndElement();
    xml.writeEndDocument();
    return !xml.hasError();
  });
  if (!why.empty()) return refuse(fmt::format("Could not write {}: {}", file.string(), why));
  result.tracks = static_cast<int64_t>(c.tracks.size());
  klog(fmt::format("xml export: {} tracks, {} playlists -> {}", result.tracks, result.playlists,
                   file.string()));
  return result;
}

}  // namespace orvel::app
