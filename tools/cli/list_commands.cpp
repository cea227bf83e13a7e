// orvel ls, orvel show.
#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "core/text/path_norm.h"
#include "core/text/split.h"
#include "core/text/visible.h"
#include "tools/cli/commands.h"
#include "tools/cli/table.h"
#include "tools/cli/track_json.h"

namespace orvel::cli {
namespace {

using nlohmann::json;

struct ListOptions {
  std::string search;
  std::string playlist;
  std::string sort;
  int64_t limit = 0;
  bool json = false;
};

std::vector<TrackRow> listTracks(OrvelDB& db, const ListOptions& o) {
  // The plain newest-first listing can stop at the limit inside the query.
  const bool whole = !o.playlist.empty() || !o.search.empty() || !o.sort.empty();
  std::vector<TrackRow> rows = db.tracks().loadAllTracks(
      !whole && o.limit > 0 ? std::optional<int64_t>(o.limit) : std::nullopt);
  if (!o.playlist.empty()) {
    const int64_t id = resolvePlaylist(db, o.playlist);
    // A live smart playlist is evaluated now, as opening it in the window would.
    const auto ids =
        db.smart().refreshSmartPlaylist(id).value_or(db.playlists().orderedTrackIds(id));
    std::unordered_map<int64_t, size_t> byId;
    for (size_t i = 0; i < rows.size(); ++i) byId.emplace(rows[i].id, i);
    std::vector<TrackRow> members;
    for (int64_t member : ids)
      if (auto it = byId.find(member); it != byId.end()) members.push_back(rows[it->second]);
    rows = std::move(members);
  }
  if (!o.search.empty()) {
    // The same rule as the window's search field: the whole text, lower-cased,
    // inside one of title, artist, album or genre.
    const std::string needle = lowerUnicode(o.search);
    std::erase_if(rows, [&](const TrackRow& r) {
      for (const std::string_view f : {r.title(), r.artist(), r.album(), r.genre()})
        if (lowerUnicode(f).find(needle) != std::string::npos) return false;
      return true;
    });
  }
  sortTracks(rows, parseSort(o.sort));
  if (o.limit > 0 && rows.size() > static_cast<size_t>(o.limit))
    rows.resize(static_cast<size_t>(o.limit));
  return rows;
}

json cuesOf(OrvelDB& db, int64_t id) {
  json cues = json::array();
  for (const CueRow& c : db.cues().cues(id)) cues.push_back(toJson(c));
  return cues;
}

json gridsOf(OrvelDB& db, int64_t id) {
  json grids = json::array();
  Statement st = db.prepare("SELECT source_id, anchors_json FROM beatgrids WHERE track_id = ?");
  st.bind(1, id);
  while (st.step()) {
    json anchors = json::parse(st.text(1), nullptr, false);
    grids.push_back({{"sourceId", st.isNull(0) ? json(nullptr) : json(st.int64(0))},
                     {"anchors", anchors.is_discarded() ? json::array() : anchors}});
  }
  return grids;
}

json defectsOf(OrvelDB& db, int64_t id) {
  json defects = json::array();
  for (const DefectRow& d : db.analysis().defects(id))
    defects.push_back({{"kind", d.kind}, {"positionMs", d.positionMs}, {"severity", d.severity}});
  return defects;
}

void show(Context& ctx, int64_t id, bool asJson) {
  OrvelDB& db = ctx.db();
  const auto row = db.tracks().loadTrack(id);
  if (!row) throw CliError(kFailed, "no track with id " + std::to_string(id));
  const auto flag = [&](const char* column) {
    return db.scalarInt(fmt::format("SELECT COALESCE({}, 0) FROM tracks WHERE id = {}", column, id))
               .value_or(0) != 0;
  };
  json j = toJson(*row);
  j["loved"] = flag("loved");
  j["disliked"] = flag("disliked");
  j["master"] = flag("master");
  j["removed"] = flag("removed");
  j["tags"] = db.trackData().tagsOf(id);
  j["cues"] = cuesOf(db, id);
  j["beatgrids"] = gridsOf(db, id);
  j["defects"] = defectsOf(db, id);
  ctx.requireIntact();
  if (asJson) {
    ctx.out << jsonText(j, 2) << '\n';
    return;
  }
  std::ostream& out = ctx.out;
  // Every text below came from tags or the file system: printed visible.
  out << fmt::format("#{}  {} — {}{}\n", row->id,
                     row->artist().empty() ? "(no artist)" : visible(row->artist()),
                     visible(row->title()), j["removed"].get<bool>() ? "  [removed]" : "");
  const auto line = [&](const char* label, std::string_view value) {
    if (!value.empty()) out << fmt::format("  {:<10} {}\n", label, visible(value));
  };
  line("album", row->album());
  line("genre", row->genre());
  line("year", row->year());
  line("label", row->label());
  line("bpm", row->bpmText());
  line("key", row->key());
  line("time", row->durationText());
  line("rating", row->ratingText());
  line("plays", row->playCount ? std::to_string(*row->playCount) : "");
  line("added", row->dateAddedText());
  line("size", row->sizeText());
  line("bitrate", row->bitrateText());
  line("comment", row->comment());
  line("grouping", row->grouping());
  std::string marks;
  for (const char* m : {"loved", "disliked", "master"})
    if (j[m].get<bool>()) marks += std::string(marks.empty() ? "" : ", ") + m;
  if (row->missing) marks += std::string(marks.empty() ? "" : ", ") + "file missing";
  line("marks", marks);
  std::string tags;
  for (const auto& t : db.trackData().tagsOf(id)) tags += (tags.empty() ? "" : ", ") + t;
  line("tags", tags);
  line("path", row->path());
  for (const auto& c : j["cues"]) {
    const double ms = c["positionMs"].get<double>();
    out << fmt::format(
        "  {:<10} {} {} at {}{}\n", c["kind"].get<std::string>(), c["bank"].get<std::string>(),
        c["index"].get<int64_t>(), clockTime(ms),
        c["name"].get<std::string>().empty() ? "" : "  " + visible(c["name"].get<std::string>()));
  }
  for (const auto& g : j["beatgrids"])
    out << fmt::format("  {:<10} {} anchors\n", "beatgrid", g["anchors"].size());
  if (!j["defects"].empty()) line("defects", std::to_string(j["defects"].size()));
}

}  // namespace

void printTrackTable(std::ostream& out, const std::vector<TrackRow>& rows) {
  Table table({{"ID", 10, true},
               {"ARTIST", 28},
               {"TITLE", 40},
               {"BPM", 6, true},
               {"KEY", 4},
               {"TIME", 8, true},
               {"RATING", 6},
               {"GENRE", 18}});
  for (const auto& r : rows)
    table.add({std::to_string(r.id), std::string(r.artist()), std::string(r.title()), r.bpmText(),
               std::string(r.key()), r.durationText(), r.ratingText(), std::string(r.genre())});
  table.print(out);
}

void printTrackJson(std::ostream& out, const std::vector<TrackRow>& rows) {
  // One array, a track per line: streamed, so a whole library does not have
  // to exist twice in memory as JSON.
  out << "[";
  for (size_t i = 0; i < rows.size(); ++i) out << (i ? ",\n" : "\n") << jsonText(toJson(rows[i]));
  out << "\n]\n";
}

void addListCommands(CLI::App& app, Context& ctx) {
  auto opts = std::make_shared<ListOptions>();
  CLI::App* ls = app.add_subcommand("ls", "List live tracks, newest first");
  ls->add_option("--search", opts->search,
                 "Only tracks whose title, artist, album or genre contains this text");
  ls->add_option("--playlist", opts->playlist,
                 "Only the members of a playlist or crate (id or path), in order");
  ls->add_option("--sort", opts->sort,
                 "Sort by fields, most significant first; '-' sorts descending (e.g. artist,-bpm)");
  ls->add_option("--limit", opts->limit, "At most N tracks")->check(CLI::NonNegativeNumber);
  ls->add_flag("--json", opts->json, "One JSON array of tracks on stdout");
  ls->callback([&ctx, opts] {
    const auto rows = listTracks(ctx.db(), *opts);
    ctx.requireIntact();
    if (opts->json)
      printTrackJson(ctx.out, rows);
    else
      printTrackTable(ctx.out, rows);
  });

  auto id = std::make_shared<int64_t>(0);
  auto asJson = std::make_shared<bool>(false);
  CLI::App* sh = app.add_subcommand("show", "One track with its cues, beat grids and defects");
  sh->add_option("ID", *id, "Track id")->required();
  sh->add_flag("--json", *asJson, "One JSON object on stdout");
  sh->callback([&ctx, id, asJson] { show(ctx, *id, *asJson); });
}

}  // namespace orvel::cli
