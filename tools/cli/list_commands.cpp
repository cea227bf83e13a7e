// orvel ls, orvel show.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <charconv>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "core/library/filter.h"
#include "core/library/library_load.h"
#include "core/store/log.h"
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
  std::string category;
  std::string content;
  std::string scope;
  std::string folder;
  std::vector<std::string> genres, artists, albums;
  bool albumArtists = false;
  bool groupCompilations = false;
  int64_t limit = 0;
  bool json = false;
};

// "artist,-bpm": the columns, most significant first; '-' sorts descending.
std::vector<library::SortColumn> parseSort(const std::string& columns) {
  std::vector<library::SortColumn> out;
  for (std::string_view piece : split(columns, ',')) {
    std::string name(trim(piece));
    if (name.empty()) continue;
    bool ascending = true;
    if (name[0] == '-' || name[0] == '+') {
      ascending = name[0] == '+';
      name.erase(0, 1);
    }
    const auto field = library::sortFieldNamed(name);
    if (!field)
      throw CliError(kBadUsage, fmt::format("cannot sort by '{}' (one of: {})", name,
                                            library::sortFieldNames()));
    out.push_back({*field, ascending});
  }
  return out;
}

library::Category categoryOption(const std::string& key) {
  if (const auto c = library::categoryNamed(key)) return *c;
  throw CliError(kBadUsage, fmt::format("no category '{}' (one of: {})", key,
                                        fmt::join(library::kCategoryKeys, ", ")));
}

library::FilterQuery queryOf(OrvelDB& db, const ListOptions& o) {
  library::FilterQuery q;
  q.now = unixNow();
  q.search = o.search;
  q.sort = parseSort(o.sort);
  if (!o.category.empty()) q.source = library::Source::of(categoryOption(o.category));
  if (!o.folder.empty()) {
    std::error_code ec;
    q.source = library::Source::inFolder(
        std::filesystem::absolute(o.folder, ec).lexically_normal().string());
  }
  if (!o.playlist.empty()) {
    const int64_t id = resolvePlaylist(db, o.playlist);
    // A live smart playlist is evaluated now, as opening it in the window would.
    q.source = library::Source::tracks(
        db.smart().refreshSmartPlaylist(id).value_or(db.playlists().orderedTrackIds(id)));
  }
  if (!o.content.empty()) {
    const auto c = library::contentNamed(o.content);
    if (!c)
      throw CliError(kBadUsage, fmt::format("no content filter '{}' (one of: {})", o.content,
                                            fmt::join(library::kContentNames, ", ")));
    q.content = *c;
  }
  if (!o.scope.empty()) {
    const size_t eq = o.scope.find('=');
    const std::string key = o.scope.substr(0, eq);
    if (std::find(library::kScopeKeys.begin(), library::kScopeKeys.end(), key) ==
        library::kScopeKeys.end())
      throw CliError(kBadUsage, fmt::format("no scope '{}' (one of: {})", key,
                                            fmt::join(library::kScopeKeys, ", ")));
    q.scope = library::Scope{key, eq == std::string::npos ? "" : o.scope.substr(eq + 1)};
  }
  q.browser.useAlbumArtists = o.albumArtists;
  q.browser.groupCompilations = o.groupCompilations;
  q.selection = {o.genres, o.artists, o.albums};
  q.browser.shown = !q.selection.empty();
  return q;
}

struct Listing {
  std::vector<TrackRow> rows;
  library::ViewStats stats;
};

// The library, or with a search only the tracks it finds (read from four
// columns of every row, then whole): the same filter over either gives the
// same answer, the second in a fraction of the time.
struct Loaded {
  std::shared_ptr<const library::LibraryIndex> index;
  std::optional<int64_t> libraryTotal;  // when the index holds only what a search found
};

// Whether a query looks at the sets the library keeps beside the rows.
bool usesSets(const library::FilterQuery& q) {
  using library::Category;
  if (q.scope && (q.scope->key == "isrc" || q.scope->key == "artwork")) return true;
  return q.source.kind == library::Source::Kind::category &&
         (q.source.category == Category::damaged || q.source.category == Category::released ||
          q.source.category == Category::duplicates);
}

Loaded libraryFor(OrvelDB& db, const library::FilterQuery& q) {
  library::LoadOptions load;
  load.duplicates = q.source.kind == library::Source::Kind::category &&
                    q.source.category == library::Category::duplicates;
  // The duplicates are found over the whole library, so they read it all.
  if (library::searchNeedle(q.search).empty() || load.duplicates)
    return {library::loadIndex(db, load), std::nullopt};
  const library::Found found = library::idsFound(db, q.search);
  auto rows = std::make_shared<TrackSnapshot>();
  rows->rows = db.tracks().loadTracks(found.ids);
  std::sort(rows->rows.begin(), rows->rows.end(), [](const TrackRow& a, const TrackRow& b) {
    return a.dateAdded != b.dateAdded ? a.dateAdded > b.dateAdded : a.id > b.id;
  });
  return {library::LibraryIndex::build(
              rows, usesSets(q) ? library::loadSets(db) : library::LibrarySets{}),
          found.looked};
}

Listing listTracks(OrvelDB& db, const ListOptions& o) {
  const library::FilterQuery q = queryOf(db, o);
  const Loaded loaded = libraryFor(db, q);
  const auto& index = loaded.index;
  library::FilterResult r = library::runFilter(*index, q);
  if (o.limit > 0 && r.rows.size() > static_cast<size_t>(o.limit))
    r.rows.resize(static_cast<size_t>(o.limit));
  Listing out;
  out.stats = r.stats;
  // Over only what a search found, the library's size is what it looked at.
  if (loaded.libraryTotal) out.stats.libraryTotal = *loaded.libraryTotal;
  out.rows.reserve(r.rows.size());
  for (uint32_t i : r.rows) out.rows.push_back(index->row(i));
  return out;
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
  CLI::App* ls =
      app.add_subcommand("ls",
                         "List live tracks, newest first, as the library view shows them "
                         "(disliked tracks only with --category disliked)");
  ls->add_option("--search", opts->search,
                 "Only tracks whose title, artist, album or genre contains this text "
                 "(any case; the whole text as typed, spaces included)");
  ls->add_option("--playlist", opts->playlist,
                 "Only the members of a playlist or crate (id or path), in order");
  ls->add_option("--category", opts->category, "Only a sidebar category (see orvel categories)");
  ls->add_option("--folder", opts->folder, "Only tracks whose file lies in this folder");
  ls->add_option("--content", opts->content, "Only Music, Mixes, Sounds or Videos");
  ls->add_option("--scope", opts->scope,
                 "One condition KEY=VALUE: artist, title, album, year, genre, bpm (124 or "
                 "120-130), key, isrc, lossless, artwork, missing (yes/no)");
  ls->add_option("--genre", opts->genres, "Browser selection: only these genres (repeatable)");
  ls->add_option("--artist", opts->artists, "Browser selection: only these artists (repeatable)");
  ls->add_option("--album", opts->albums, "Browser selection: only these albums (repeatable)");
  ls->add_flag("--album-artists", opts->albumArtists, "The artist selection means album artists");
  ls->add_flag("--group-compilations", opts->groupCompilations,
               "Compilations are the one artist \"Compilations\"");
  ls->add_option("--sort", opts->sort,
                 "Sort by fields, most significant first; '-' sorts descending (e.g. "
                 "artist,-bpm)");
  ls->add_option("--limit", opts->limit, "At most N tracks")->check(CLI::NonNegativeNumber);
  ls->add_flag("--json", opts->json, "One JSON array of tracks on stdout");
  ls->callback([&ctx, opts] {
    const Listing listing = listTracks(ctx.db(), *opts);
    ctx.requireIntact();
    if (opts->json) {
      printTrackJson(ctx.out, listing.rows);
    } else {
      printTrackTable(ctx.out, listing.rows);
      ctx.out << library::statusText(listing.stats) << "\n";
    }
  });

  auto catJson = std::make_shared<bool>(false);
  CLI::App* categories =
      app.add_subcommand("categories", "Every sidebar category with the number of tracks in it");
  categories->add_flag("--json", *catJson, "One JSON object: category key to count");
  categories->callback([&ctx, catJson] {
    library::LoadOptions load;
    load.duplicates = true;
    const auto index = library::loadIndex(ctx.db(), load);
    const auto counts = library::categoryCounts(*index, unixNow());
    ctx.requireIntact();
    if (*catJson) {
      json out = json::object();
      for (size_t i = 0; i < counts.size(); ++i)
        out[std::string(library::kCategoryKeys[i])] = counts[i];
      ctx.out << jsonText(out) << "\n";
      return;
    }
    Table table({{"CATEGORY", 16}, {"TRACKS", 8, true}});
    for (size_t i = 0; i < counts.size(); ++i)
      table.add({std::string(library::kCategoryKeys[i]), std::to_string(counts[i])});
    table.print(ctx.out);
  });

  auto browseOpts = std::make_shared<ListOptions>();
  auto column = std::make_shared<std::string>();
  CLI::App* browse = app.add_subcommand(
      "browse",
      "One column of the column browser: the genres, artists or albums of the tracks "
      "a listing would show");
  browse->add_option("COLUMN", *column, "genres, artists or albums")
      ->required()
      ->check(CLI::IsMember({"genres", "artists", "albums"}));
  browse->add_option("--search", browseOpts->search, "As for ls");
  browse->add_option("--category", browseOpts->category, "As for ls");
  browse->add_option("--content", browseOpts->content, "As for ls");
  browse->add_option("--playlist", browseOpts->playlist, "As for ls");
  browse->add_option("--genre", browseOpts->genres, "Browser selection (repeatable)");
  browse->add_option("--artist", browseOpts->artists, "Browser selection (repeatable)");
  browse->add_flag("--album-artists", browseOpts->albumArtists,
                   "Album artists in the artist column");
  browse->add_flag("--group-compilations", browseOpts->groupCompilations,
                   "Compilations as the one entry \"Compilations\"");
  browse->add_flag("--json", browseOpts->json, "One JSON array of texts");
  browse->callback([&ctx, browseOpts, column] {
    library::FilterQuery q = queryOf(ctx.db(), *browseOpts);
    // A column lists what the columns before it leave (genres, then
    // artists, then albums): its own selection and the later ones do not
    // narrow it.
    if (*column == "genres") q.selection = {};
    if (*column == "artists") q.selection.artists.clear();
    q.selection.albums.clear();
    q.browser.shown = !q.selection.empty();
    const auto index = library::loadIndex(ctx.db());
    const library::FilterResult r = library::runFilter(*index, q);
    ctx.requireIntact();
    const library::BrowserColumns columns = library::browserColumns(*index, r.rows, q.browser);
    const auto& values = *column == "genres"    ? columns.genres
                         : *column == "artists" ? columns.artists
                                                : columns.albums;
    if (browseOpts->json) {
      ctx.out << jsonText(json(values)) << "\n";
      return;
    }
    for (const std::string& v : values) ctx.out << visible(v) << "\n";
  });

  auto dupJson = std::make_shared<bool>(false);
  CLI::App* duplicates = app.add_subcommand(
      "duplicates",
      "Tracks that hold the same recording: the same fingerprint (the audio, whatever the "
      "format or bit rate), else the same artist, title and duration");
  duplicates->add_flag("--json", *dupJson, "One JSON array of groups, each an array of tracks");
  duplicates->callback([&ctx, dupJson] {
    OrvelDB& db = ctx.db();
    const auto snapshot = db.tracks().loadSnapshot();
    const auto groups = library::duplicateGroups(db, *snapshot);
    ctx.requireIntact();
    std::unordered_map<int64_t, const TrackRow*> rows;
    for (const TrackRow& r : snapshot->rows) rows.emplace(r.id, &r);
    if (*dupJson) {
      json out = json::array();
      for (const auto& group : groups) {
        json g = json::array();
        for (int64_t id : group) g.push_back(toJson(*rows.at(id)));
        out.push_back(std::move(g));
      }
      ctx.out << jsonText(out) << "\n";
      return;
    }
    if (groups.empty()) {
      ctx.out << "No duplicates among " << countOf(snapshot->rows.size(), "track") << "\n";
      return;
    }
    size_t tracks = 0;
    for (const auto& group : groups) {
      std::vector<TrackRow> members;
      for (int64_t id : group) members.push_back(*rows.at(id));
      printTrackTable(ctx.out, members);
      ctx.out << "\n";
      tracks += group.size();
    }
    ctx.out << fmt::format("{} holding the same recording, in {}\n", countOf(tracks, "track"),
                           countOf(groups.size(), "group"));
  });

  auto id = std::make_shared<int64_t>(0);
  auto asJson = std::make_shared<bool>(false);
  CLI::App* sh = app.add_subcommand("show", "One track with its cues, beat grids and defects");
  sh->add_option("ID", *id, "Track id")->required();
  sh->add_flag("--json", *asJson, "One JSON object on stdout");
  sh->callback([&ctx, id, asJson] { show(ctx, *id, *asJson); });
}

}  // namespace orvel::cli
