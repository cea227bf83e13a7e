// Folding Serato's library into the catalogue: its tracks, its crates and
// smart crates, and the cues and beat grids kept in each file's tags. Every
// step only adds or fills in; nothing the user set is overwritten, and
// running it again changes nothing.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>

#include "core/formats/serato_library.h"
#include "core/formats/serato_tags.h"
#include "core/store/orvel_db.h"
#include "core/store/serato_smart_rules.h"
#include "core/store/track_values.h"
#include "core/text/split.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;

// Serato's texts often carry a trailing NUL; blanks and NULs around a value
// are not part of it, and an empty value is no value.
std::optional<std::string> tidy(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  std::string_view v = *text;
  while (!v.empty() && (v.front() == '\0' || v.front() == ' ' || v.front() == '\t'))
    v.remove_prefix(1);
  while (!v.empty() && (v.back() == '\0' || v.back() == ' ' || v.back() == '\t'))
    v.remove_suffix(1);
  if (v.empty()) return std::nullopt;
  return std::string(v);
}

// The leading decimal number of a text ("320.0kbps" -> 320), if any.
std::optional<double> leadingNumber(std::string_view text) {
  text = trim(text);
  double value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end == text.data() || !std::isfinite(value)) return std::nullopt;
  return value;
}

// "05:12.40", "1:02:03" or "312.4" seconds, as milliseconds.
std::optional<int64_t> durationMs(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  double seconds = 0;
  for (std::string_view part : split(*text, ':')) {
    const auto n = leadingNumber(part);
    if (!n || *n < 0) return std::nullopt;
    seconds = seconds * 60 + *n;
  }
  if (seconds <= 0 || seconds > 7 * 24 * 3600) return std::nullopt;
  return std::llround(seconds * 1000);
}

std::optional<int64_t> bitrateKbps(const std::optional<std::string>& text) {
  const auto n = text ? leadingNumber(*text) : std::nullopt;
  if (!n || *n <= 0 || *n > 100000) return std::nullopt;
  return std::llround(*n);
}

// "44.1k" or "44100".
std::optional<int64_t> sampleRateHz(const std::optional<std::string>& text) {
  auto n = text ? leadingNumber(*text) : std::nullopt;
  if (!n || *n <= 0) return std::nullopt;
  if (text->find_first_of("kK") != std::string::npos) *n *= 1000;
  if (*n < 1000 || *n > 1e6) return std::nullopt;
  return std::llround(*n);
}

// "9.6MB", "850.2KB", "1.1GB".
std::optional<int64_t> sizeBytes(const std::optional<std::string>& text) {
  const auto n = text ? leadingNumber(*text) : std::nullopt;
  if (!n || *n <= 0) return std::nullopt;
  const std::string unit = text->substr(text->find_first_not_of("0123456789. "));
  double scale = 1;
  if (unit.starts_with("K") || unit.starts_with("k")) scale = 1024;
  if (unit.starts_with("M") || unit.starts_with("m")) scale = 1024.0 * 1024;
  if (unit.starts_with("G") || unit.starts_with("g")) scale = 1024.0 * 1024 * 1024;
  return std::llround(*n * scale);
}

std::optional<double> tempo(const std::optional<std::string>& text) {
  const auto n = text ? leadingNumber(*text) : std::nullopt;
  if (!n || !isTempo(*n)) return std::nullopt;
  return n;
}

// The catalogue's names for the container formats.
std::optional<std::string> catalogueFileType(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  std::string t;
  for (char c : *text) t += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (t == "mp3") return "mp3";
  if (t == "m4a" || t == "mp4" || t == "aac" || t == "alac") return "quicktime";
  if (t == "wav") return "wave";
  if (t == "aif" || t == "aiff") return "aiff";
  return std::nullopt;
}

std::optional<int64_t> fileSize(const std::string& path) {
  std::error_code ec;
  const auto size = fs::file_size(path, ec);
  if (ec) return std::nullopt;
  return static_cast<int64_t>(size);
}

NewTrack newTrackFrom(const SeratoTrack& s) {
  NewTrack t;
  t.path = s.path;
  t.title = tidy(s.title);
  t.artist = tidy(s.artist);
  t.album = tidy(s.album);
  t.genre = tidy(s.genre);
  t.comment = tidy(s.comment);
  t.grouping = tidy(s.grouping);
  t.label = tidy(s.label);
  t.year = tidy(s.year);
  t.key = tidy(s.key);
  t.bpm = tempo(s.bpm);
  t.durationMs = durationMs(s.durationText);
  t.bitrateKbps = bitrateKbps(s.bitrateText);
  t.samplerateHz = sampleRateHz(s.sampleRateText);
  t.filesizeBytes = sizeBytes(s.sizeText);
  t.fileType = catalogueFileType(s.fileType);
  if (s.dateAddedUnix) t.dateAdded = *s.dateAddedUnix;
  return t;
}

// Columns an existing row takes from Serato only while it has no value.
struct FillColumn {
  const char* column;
  bool numeric;  // 0 counts as empty too
};
constexpr FillColumn kFillColumns[] = {
    {"title", false},        {"artist", false},        {"album", false},
    {"genre", false},        {"comment", false},       {"grouping", false},
    {"label", false},        {"year", false},          {"key", false},
    {"bpm", true},           {"duration_ms", true},    {"bitrate_kbps", true},
    {"samplerate_hz", true}, {"filesize_bytes", true}, {"file_type", false},
};

std::string fillStatement() {
  std::string set, any;
  int n = 1;
  for (const FillColumn& c : kFillColumns) {
    const std::string empty = c.numeric ? fmt::format("({0} IS NULL OR {0} = 0)", c.column)
                                        : fmt::format("({0} IS NULL OR {0} = '')", c.column);
    set += fmt::format("{}{} = CASE WHEN {} THEN coalesce(?{}, {}) ELSE {} END",
                       set.empty() ? "" : ", ", c.column, empty, n, c.column, c.column);
    any += fmt::format("{}({} AND ?{} IS NOT NULL)", any.empty() ? "" : " OR ", empty, n);
    ++n;
  }
  return fmt::format("UPDATE tracks SET {} WHERE id = ?{} AND ({})", set, n, any);
}

// The cue rows and grid anchors a file's Serato tags stand for.
std::vector<CueRow> cueRowsOf(const SeratoFileTags& tags, int64_t sourceId) {
  std::vector<CueRow> rows;
  for (const SeratoCue& c : tags.cues) {
    CueRow r;
    r.sourceId = sourceId;
    r.index = c.index;
    r.positionMs = c.positionMs;
    r.color = c.colorHex.value_or("");
    r.name = c.name.value_or("");
    r.kind = "cue";
    rows.push_back(std::move(r));
  }
  for (const SeratoLoop& l : tags.loops) {
    CueRow r;
    r.sourceId = sourceId;
    r.index = l.index;
    r.positionMs = l.startMs;
    r.lengthMs = std::max(0.0, l.endMs - l.startMs);
    r.color = l.colorHex.value_or("");
    r.name = l.name.value_or("");
    r.kind = "loop";
    rows.push_back(std::move(r));
  }
  return rows;
}

}  // namespace

std::vector<BeatAnchor> SeratoStore::gridFromSerato(std::span<const SeratoGridAnchor> anchors) {
  std::vector<BeatAnchor> grid;
  std::optional<double> lastTempo;
  for (size_t i = 0; i < anchors.size(); ++i)
    if (anchors[i].bpm)
      if (auto bpm = SeratoFileTags::tempoAt(anchors, i)) lastTempo = bpm;
  for (size_t i = 0; i < anchors.size(); ++i) {
    const SeratoGridAnchor& a = anchors[i];
    if (!std::isfinite(a.positionSec)) continue;
    std::optional<double> bpm = SeratoFileTags::tempoAt(anchors, i);
    if (!bpm) bpm = lastTempo;
    if (!bpm) continue;
    grid.push_back({a.positionSec * 1000.0, *bpm});
  }
  return grid;
}

Result<int64_t> SeratoStore::seratoSourceId(const std::string& detail) {
  if (auto id =
          conn_.scalarInt("SELECT id FROM sources WHERE name='serato' ORDER BY id DESC LIMIT 1"))
    return *id;
  Statement st =
      conn_.prepare("INSERT INTO sources(name, detail, imported_at) VALUES('serato', ?, ?)");
  if (st.bind(1, detail).bind(2, unixNow()).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return conn_.lastInsertId();
}

TagsStored SeratoStore::storeFileTags(int64_t trackId, const SeratoFileTags& tags) {
  const auto sourceId = seratoSourceId();
  if (!sourceId) return TagsStored::failed;
  const int64_t source = *sourceId;
  const std::vector<CueRow> rows = cueRowsOf(tags, source);
  const std::vector<BeatAnchor> grid = gridFromSerato(tags.gridAnchors);

  // The same cues and grid as last time: nothing to write.
  std::vector<CueRow> stored;
  {
    Statement st = conn_.cached(
        "SELECT idx, position_ms, length_ms, color, name, kind FROM cues\n"
        "WHERE track_id = ? AND source_id = ? ORDER BY id");
    st.bind(1, trackId).bind(2, source);
    while (st.step()) {
      CueRow r;
      r.index = st.int64(0);
      r.positionMs = st.real(1);
      r.lengthMs = st.optReal(2);
      r.color = st.text(3);
      r.name = st.text(4);
      r.kind = st.text(5);
      stored.push_back(std::move(r));
    }
  }
  auto same = [](const CueRow& a, const CueRow& b) {
    return a.index == b.index && a.positionMs == b.positionMs && a.lengthMs == b.lengthMs &&
           a.color == b.color && a.name == b.name && a.kind == b.kind;
  };
  const std::vector<BeatAnchor> storedGrid = db_.cues().beatGrid(trackId, source);
  const bool gridSame = std::equal(grid.begin(), grid.end(), storedGrid.begin(), storedGrid.end(),
                                   [](const BeatAnchor& a, const BeatAnchor& b) {
                                     return a.posMs == b.posMs && a.bpm == b.bpm;
                                   });
  if (gridSame && std::equal(rows.begin(), rows.end(), stored.begin(), stored.end(), same))
    return TagsStored::unchanged;
  return db_.cues().replaceSourceCues(trackId, source, rows, grid) ? TagsStored::changed
                                                                   : TagsStored::failed;
}

Result<SeratoRefreshCounts> SeratoStore::foldSeratoTracks(const SeratoLibrary& library,
                                                          std::span<const NewTrack> crateOnly) {
  SeratoRefreshCounts counts;
  counts.skippedTrackChunks = library.skippedTrackChunks;
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const auto sourceId = seratoSourceId(library.version);
  if (!sourceId) return sourceId.status();
  const int64_t source = *sourceId;
  Statement fill = conn_.cached(fillStatement());
  for (const SeratoTrack& s : library.tracks) {
    NewTrack t = newTrackFrom(s);
    // One stat answers both: is the file there, and how big is it really.
    const auto size = fileSize(s.path);
    const bool present = size.has_value();
    if (present) t.filesizeBytes = size;
    Statement find = conn_.cached("SELECT id FROM tracks WHERE path_norm = ? LIMIT 1");
    find.bind(1, OrvelDB::normalizePath(s.path));
    if (find.step()) {
      const int64_t id = find.int64(0);
      find.reset();
      fill.reset();
      fill.bind(1, t.title).bind(2, t.artist).bind(3, t.album).bind(4, t.genre);
      fill.bind(5, t.comment).bind(6, t.grouping).bind(7, t.label).bind(8, t.year);
      fill.bind(9, t.key).bind(10, t.bpm).bind(11, t.durationMs).bind(12, t.bitrateKbps);
      fill.bind(13, t.samplerateHz).bind(14, t.filesizeBytes).bind(15, t.fileType);
      static_assert(std::size(kFillColumns) == 15);
      fill.bind(16, id);
      if (fill.stepCode() != SQLITE_DONE) {
        return conn_.lastStatus();
      }
      if (conn_.changes() > 0) ++counts.tracksFilled;
      Statement link =
          conn_.cached("INSERT OR IGNORE INTO track_sources(track_id, source_id) VALUES(?, ?)");
      if (link.bind(1, id).bind(2, source).stepCode() != SQLITE_DONE) return conn_.lastStatus();
      continue;
    }
    find.reset();
    const auto id = db_.tracks().insertImported(t, source);
    if (!id) return id.status();
    if (!present) {
      Statement missing = conn_.cached("UPDATE tracks SET file_missing = 1 WHERE id = ?");
      if (missing.bind(1, *id).stepCode() != SQLITE_DONE) return conn_.lastStatus();
    }
    ++counts.tracksAdded;
  }
  for (const NewTrack& t : crateOnly) {
    Statement find = conn_.cached("SELECT id FROM tracks WHERE path_norm = ? LIMIT 1");
    find.bind(1, OrvelDB::normalizePath(t.path));
    if (find.step()) continue;
    find.reset();
    const auto id = db_.tracks().insertImported(t, source);
    if (!id) return id.status();
    ++counts.tracksAdded;
  }
  if (Status s = refreshSeratoCrates(library, counts); !s) return s;
  if (Status kept = tx.commit(); !kept) return kept;
  return counts;
}

namespace {

// Two rule sets that select the same: rule ids are made afresh each time.
bool sameRules(const SmartPlaylist& a, const SmartPlaylist& b) {
  if (a.matchAll != b.matchAll || a.liveUpdate != b.liveUpdate || a.rules.size() != b.rules.size())
    return false;
  for (size_t i = 0; i < a.rules.size(); ++i)
    if (a.rules[i].field != b.rules[i].field || a.rules[i].op != b.rules[i].op ||
        a.rules[i].value != b.rules[i].value)
      return false;
  return true;
}

}  // namespace

Result<bool> SeratoStore::refreshSmartCrate(int64_t crateId, const SeratoCrate& crate,
                                            const std::optional<SmartPlaylist>& rules,
                                            SeratoRefreshCounts& counts) {
  bool changed = false;
  std::string criteria;
  for (const SeratoSmartRule& rule : crate.rules) {
    if (!criteria.empty()) criteria += crate.matchAll ? " AND " : " OR ";
    criteria += rule.summary();
  }
  const std::string info = crate.live ? "serato-smart-live" : "serato-smart";
  Statement current = conn_.prepare(
      "SELECT coalesce(smart_criteria,''), coalesce(smart_info,'') FROM playlists WHERE id = ?");
  current.bind(1, crateId);
  if (!current.step() || current.text(0) != criteria || current.text(1) != info) {
    Statement up =
        conn_.prepare("UPDATE playlists SET smart_criteria = ?, smart_info = ? WHERE id = ?");
    if (up.bind(1, criteria).bind(2, info).bind(3, crateId).stepCode() != SQLITE_DONE)
      return conn_.lastStatus();
    changed = true;
  }

  SmartStore& smart = db_.smart();
  const auto stored = smart.loadSmartRules(crateId);
  if (!rules) {
    // Rules that no longer translate: the crate goes back to Serato's list.
    if (stored) {
      Statement drop = conn_.prepare("DELETE FROM smart_playlists WHERE playlist_id = ?");
      if (drop.bind(1, crateId).stepCode() != SQLITE_DONE) return conn_.lastStatus();
      changed = true;
    }
    return changed;
  }
  if (!stored || !sameRules(*stored, *rules)) {
    if (Status s = smart.saveSmartRules(crateId, *rules); !s) return s;
    changed = true;
  }
  const std::vector<int64_t> ids = smart.smartQueryIds(*rules);
  const std::vector<int64_t> before = db_.playlists().orderedTrackIds(crateId);
  const std::set<int64_t> had(before.begin(), before.end()), now(ids.begin(), ids.end());
  if (had != now) {
    for (int64_t id : now) counts.addedLinks += had.count(id) ? 0 : 1;
    if (Status s = db_.playlists().replacePlaylistTracks(crateId, ids); !s) return s;
  }
  return changed;
}

Status SeratoStore::refreshSeratoCrates(const SeratoLibrary& library, SeratoRefreshCounts& counts) {
  Transaction tx(conn_);
  if (!tx) return tx.status();
  const auto sourceId = seratoSourceId(library.version);
  if (!sourceId) return sourceId.status();
  const int64_t source = *sourceId;
  std::map<std::pair<std::optional<int64_t>, std::string>, int64_t> nodes;
  {
    Statement st = conn_.prepare("SELECT id, parent_id, name FROM playlists WHERE source_id = ?");
    st.bind(1, source);
    while (st.step()) nodes.emplace(std::make_pair(st.optInt64(1), st.text(2)), st.int64(0));
  }
  Statement create = conn_.prepare(
      "INSERT INTO playlists(source_id, parent_id, name, kind) VALUES(?,?,?,'crate')");
  Statement find = conn_.prepare("SELECT id FROM tracks WHERE path_norm = ? LIMIT 1");
  Statement ghost = conn_.prepare(
      "INSERT INTO tracks(path, filename, file_missing) VALUES(?,?,?) ON CONFLICT DO NOTHING");
  Statement members = conn_.prepare("SELECT track_id FROM playlist_tracks WHERE playlist_id = ?");
  Statement link = conn_.prepare(
      "INSERT OR IGNORE INTO playlist_tracks(playlist_id, track_id, position) VALUES(?,?,?)");

  auto fail = [&] { return conn_.lastStatus(); };

  for (const SeratoCrate& crate : library.crates) {
    std::optional<int64_t> parent;
    for (const std::string& name : crate.nameChain) {
      auto it = nodes.find({parent, name});
      if (it == nodes.end()) {
        create.reset();
        create.bind(1, source).bind(2, parent).bind(3, name);
        if (create.stepCode() != SQLITE_DONE) return fail();
        const int64_t id = freshRowId("playlists", conn_.lastInsertId());
        it = nodes.emplace(std::make_pair(parent, name), id).first;
        ++counts.cratesAdded;
      }
      parent = it->second;
    }
    if (!parent) continue;  // an empty chain names no crate
    const int64_t crateId = *parent;

    const SeratoSmartTranslation smart = translateSeratoSmartCrate(crate);
    if (crate.isSmart) {
      const auto changed = refreshSmartCrate(crateId, crate, smart.playlist, counts);
      if (!changed) return changed.status();
      counts.smartUpdated += *changed ? 1 : 0;
    }
    // A smart crate Orvel evaluates itself has the members its rules give;
    // every other crate gets what Serato lists, added to what it has.
    if (smart.playlist) continue;

    std::set<int64_t> present;
    members.reset();
    members.bind(1, crateId);
    while (members.step()) present.insert(members.int64(0));
    int64_t position = conn_
                           .scalarInt(fmt::format("SELECT COALESCE(MAX(position), -1) + 1 FROM "
                                                  "playlist_tracks WHERE playlist_id = {}",
                                                  crateId))
                           .value_or(0);
    for (const std::string& path : crate.trackPaths) {
      find.reset();
      find.bind(1, OrvelDB::normalizePath(path));
      std::optional<int64_t> trackId;
      if (find.step()) trackId = find.int64(0);
      if (!trackId) {
        // A placeholder for a file that is there (its tags could not be
        // read) is not marked missing.
        std::error_code ec;
        const int64_t missing = fs::is_regular_file(path, ec) ? 0 : 1;
        ghost.reset();
        ghost.bind(1, path).bind(2, std::string(lastPathComponent(path))).bind(3, missing);
        if (ghost.stepCode() != SQLITE_DONE) return fail();
        if (conn_.changes() == 0) continue;
        trackId = conn_.lastInsertId();
        ++counts.ghosts;
      }
      if (!present.insert(*trackId).second) continue;
      link.reset();
      link.bind(1, crateId).bind(2, *trackId).bind(3, position++);
      if (link.stepCode() != SQLITE_DONE) return fail();
      counts.addedLinks += conn_.changes();
    }
  }
  return tx.commit();
}

}  // namespace orvel
