// orvel playlist (create|rename|color|move|rm|add|remove|reorder|show|tree).
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <set>

#include "core/text/split.h"
#include "core/text/visible.h"
#include "tools/cli/commands.h"
#include "tools/cli/track_json.h"

namespace orvel::cli {
namespace {

using nlohmann::json;

struct PlaylistArgs {
  std::string playlist;
  std::string name;
  std::string parent;
  std::string color;
  bool crate = false;
  bool top = false;
  bool clear = false;
  bool json = false;
  std::vector<std::string> playlists;
  std::vector<int64_t> ids;
};

std::string quoted(OrvelDB& db, int64_t id) {
  return "\"" + visible(db.playlists().playlistPath(id)) + "\"";
}

bool isColor(const std::string& s) {
  if (s.size() != 7 || s[0] != '#') return false;
  for (size_t i = 1; i < s.size(); ++i)
    if (!std::isxdigit(static_cast<unsigned char>(s[i]))) return false;
  return true;
}

json nodeJson(const CrateNode& n) {
  json children = json::array();
  for (const auto& c : n.children) children.push_back(nodeJson(c));
  return {{"id", n.id},
          {"name", n.name},
          {"parentId", n.parentId ? json(*n.parentId) : json(nullptr)},
          {"kind", n.kind},
          {"source", n.sourceName},
          {"color", n.color ? json(*n.color) : json(nullptr)},
          {"trackCount", n.trackCount},
          {"children", children}};
}

void printTree(std::ostream& out, const std::vector<CrateNode>& level, const std::string& indent) {
  for (const auto& n : level) {
    std::string detail = n.kind;
    if (n.sourceName != "orvel" && !n.sourceName.empty()) detail += ", " + n.sourceName;
    if (n.color) detail += ", " + *n.color;
    out << fmt::format("{}{}  ({}, {})  #{}\n", indent, visible(n.name), visible(detail),
                       countOf(static_cast<size_t>(n.trackCount), "track"), n.id);
    printTree(out, n.children, indent + "  ");
  }
}

// The members in their new order: the listed tracks first, as listed, then
// the others as they were. Every listed track must be a member.
std::vector<int64_t> newOrder(OrvelDB& db, int64_t playlistId, const std::vector<int64_t>& first) {
  const auto current = db.playlists().orderedTrackIds(playlistId);
  const std::set<int64_t> members(current.begin(), current.end());
  std::set<int64_t> listed;
  for (int64_t id : first) {
    if (!listed.insert(id).second)
      throw CliError(kBadUsage, fmt::format("track {} is listed twice", id));
    if (!members.contains(id))
      throw CliError(kFailed, fmt::format("track {} is not in {}; nothing was changed", id,
                                          quoted(db, playlistId)));
  }
  std::vector<int64_t> order = first;
  for (int64_t id : current)
    if (!listed.contains(id)) order.push_back(id);
  return order;
}

void show(Context& ctx, int64_t id, bool asJson) {
  OrvelDB& db = ctx.db();
  const auto node = db.playlists().playlist(id);
  const std::string kind = db.playlists().playlistKind(id);
  const auto smart = kind == "smart" ? db.smart().loadSmartRules(id) : std::nullopt;
  const auto live = db.smart().smartPlaylists();
  const bool isLive = live.contains(id) && live.at(id);
  const auto ids = db.smart().refreshSmartPlaylist(id).value_or(db.playlists().orderedTrackIds(id));
  const auto rows = tracksInOrder(db, ids);
  if (asJson) {
    const auto colors = db.playlists().playlistColors();
    json j = {{"id", id},
              {"name", node->name},
              {"path", db.playlists().playlistPath(id)},
              {"parentId", node->parentId ? json(*node->parentId) : json(nullptr)},
              {"kind", kind},
              {"source", node->sourceName},
              {"color", colors.contains(id) ? json(colors.at(id)) : json(nullptr)},
              {"trackCount", ids.size()},
              {"smart", smart ? json::parse(smart->toJSON()) : json(nullptr)},
              {"tracks", json::array()}};
    for (const auto& r : rows) j["tracks"].push_back(toJson(r));
    ctx.out << jsonText(j, 2) << '\n';
    return;
  }
  ctx.out << fmt::format("#{}  {}  ({}{}, {})\n", id, visible(db.playlists().playlistPath(id)),
                         kind, node->sourceName.empty() ? "" : ", " + node->sourceName,
                         countOf(ids.size(), "track"));
  if (kind == "smart")
    ctx.out << (smart ? fmt::format("  {} smart playlist; see: orvel smart show {}\n",
                                    isLive ? "live" : "static", id)
                      : std::string("  its rules are missing; showing the saved members\n"));
  printTrackTable(ctx.out, rows);
}

}  // namespace

int64_t resolvePlaylist(OrvelDB& db, const std::string& idOrPath) {
  // A number is an id when such a playlist exists; otherwise it is a name
  // (a crate called "2024").
  int64_t id = 0;
  const char* end = idOrPath.data() + idOrPath.size();
  if (const auto [at, ec] = std::from_chars(idOrPath.data(), end, id);
      ec == std::errc() && at == end && db.playlists().playlist(id))
    return id;
  if (auto found = db.playlists().playlistByPath(idOrPath)) return *found;
  // "Sets/2026/Warm-up": the names need not be spelled with " / ".
  std::optional<int64_t> parent;
  for (std::string_view piece : split(idOrPath, '/')) {
    const std::string name(trim(piece));
    if (name.empty()) continue;
    Statement st = db.prepare(
        "SELECT id FROM playlists WHERE name = ? AND parent_id IS ? ORDER BY sort_order, id "
        "LIMIT 1");
    st.bind(1, name).bind(2, parent);
    if (!st.step()) throw CliError(kFailed, "no playlist " + idOrPath);
    parent = st.int64(0);
  }
  if (!parent) throw CliError(kBadUsage, "name a playlist by id or path");
  return *parent;
}

std::vector<TrackRow> tracksInOrder(OrvelDB& db, std::span<const int64_t> ids) {
  std::vector<TrackRow> rows;
  rows.reserve(ids.size());
  for (int64_t id : db.tracks().existingIds(ids))
    if (auto row = db.tracks().loadTrack(id)) rows.push_back(std::move(*row));
  return rows;
}

void addPlaylistCommands(CLI::App& app, Context& ctx) {
  auto a = std::make_shared<PlaylistArgs>();
  CLI::App* pl = app.add_subcommand(
      "playlist", "Playlists and crates: PLAYLIST is an id or a path such as \"Sets/Warm-up\"");
  pl->require_subcommand(1, 1);

  CLI::App* create = pl->add_subcommand("create", "Make a playlist (or with --crate, a crate)");
  create->add_option("NAME", a->name, "Its name")->required();
  create->add_option("--parent", a->parent, "Put it inside this playlist or crate");
  create->add_flag("--crate", a->crate, "Make a crate rather than a playlist");
  create->callback([&ctx, a] {
    OrvelDB& db = ctx.db();
    std::optional<int64_t> parent;
    if (!a->parent.empty()) parent = resolvePlaylist(db, a->parent);
    const auto id = db.playlists().create(a->name, parent, a->crate ? "crate" : "playlist");
    if (!id) failed("creating " + a->name, id.status());
    ctx.out << fmt::format("Created {} {} #{}\n", a->crate ? "crate" : "playlist", quoted(db, *id),
                           *id);
  });

  CLI::App* rename = pl->add_subcommand("rename", "Rename a playlist or crate");
  rename->add_option("PLAYLIST", a->playlist, "Id or path")->required();
  rename->add_option("NAME", a->name, "The new name")->required();
  rename->callback([&ctx, a] {
    OrvelDB& db = ctx.db();
    const int64_t id = resolvePlaylist(db, a->playlist);
    const std::string before = quoted(db, id);
    const auto opId = db.playlists().renamePlaylist(id, a->name);
    if (!opId) failed("renaming " + before, opId.status());
    ctx.out << fmt::format("Renamed {} to {}{}\n", before, quoted(db, id), undoHint(*opId));
  });

  CLI::App* color = pl->add_subcommand("color", "Set a playlist's colour (#RRGGBB) or --clear it");
  color->add_option("PLAYLIST", a->playlist, "Id or path")->required();
  color->add_option("COLOR", a->color, "#RRGGBB");
  color->add_flag("--clear", a->clear, "Remove the colour");
  color->callback([&ctx, a] {
    if (a->clear == !a->color.empty())
      throw CliError(kBadUsage, "give a colour such as #D9A441, or --clear");
    if (!a->clear && !isColor(a->color))
      throw CliError(kBadUsage, "a colour is written #RRGGBB, such as #D9A441");
    OrvelDB& db = ctx.db();
    const int64_t id = resolvePlaylist(db, a->playlist);
    const auto opId = db.playlists().setPlaylistColor(
        id, a->clear ? std::nullopt : std::optional<std::string>(a->color));
    if (!opId) failed("colouring " + quoted(db, id), opId.status());
    ctx.out << fmt::format("{} {}{}\n", a->clear ? "Cleared the colour of" : "Coloured",
                           quoted(db, id), undoHint(*opId));
  });

  CLI::App* move = pl->add_subcommand("move", "Move a playlist into another (--to) or to the top");
  move->add_option("PLAYLIST", a->playlist, "Id or path")->required();
  auto* to = move->add_option("--to", a->parent, "The new parent (id or path)");
  auto* top = move->add_flag("--top", a->top, "Move it to the top level");
  to->excludes(top);
  move->callback([&ctx, a] {
    if (a->parent.empty() && !a->top)
      throw CliError(kBadUsage, "say where: --to PLAYLIST or --top");
    OrvelDB& db = ctx.db();
    const int64_t id = resolvePlaylist(db, a->playlist);
    std::optional<int64_t> parent;
    if (!a->top) parent = resolvePlaylist(db, a->parent);
    const auto opId = db.playlists().setPlaylistParent(id, parent);
    if (!opId) failed("moving " + quoted(db, id), opId.status());
    ctx.out << fmt::format("Moved to {}{}\n", quoted(db, id), undoHint(*opId));
  });

  CLI::App* rm = pl->add_subcommand(
      "rm", "Delete playlists with everything inside them (the tracks stay in the library)");
  rm->add_option("PLAYLIST", a->playlists, "Ids or paths")->required();
  rm->callback([&ctx, a] {
    OrvelDB& db = ctx.db();
    std::vector<int64_t> ids;  // all resolved first: a bad name deletes nothing
    for (const auto& p : a->playlists) ids.push_back(resolvePlaylist(db, p));
    for (int64_t id : ids) {
      if (!db.playlists().playlist(id)) continue;  // went with an earlier one
      const std::string name = quoted(db, id);
      const size_t below = db.playlists().subtreeIds(id).size() - 1;
      const auto opId = db.playlists().deletePlaylist(id);
      if (!opId) failed("deleting " + name, opId.status());
      ctx.out << fmt::format("Deleted {}{}{}\n", name,
                             below ? " and " + countOf(below, "playlist") + " inside it" : "",
                             undoHint(*opId));
    }
  });

  CLI::App* add = pl->add_subcommand("add", "Add tracks at the end of a playlist");
  add->add_option("PLAYLIST", a->playlist, "Id or path")->required();
  add->add_option("ID", a->ids, "Track ids")->required();
  add->callback([&ctx, a] {
    OrvelDB& db = ctx.db();
    const int64_t id = resolvePlaylist(db, a->playlist);
    requireLiveTracks(ctx, a->ids);
    const auto current = db.playlists().orderedTrackIds(id);
    if (std::all_of(a->ids.begin(), a->ids.end(), [&](int64_t t) {
          return std::find(current.begin(), current.end(), t) != current.end();
        })) {
      ctx.out << fmt::format("Every track given is already in {}\n", quoted(db, id));
      return;
    }
    const auto before = db.playlists().playlistRowCount(id);
    const auto opId = db.playlists().addToPlaylist(a->ids, id);
    if (!opId) failed("adding to " + quoted(db, id), opId.status());
    const auto added = static_cast<size_t>(db.playlists().playlistRowCount(id) - before);
    ctx.out << fmt::format(
        "Added {} to {}{}{}\n", countOf(added, "track"), quoted(db, id),
        added < a->ids.size() ? fmt::format(" ({} already there)", a->ids.size() - added) : "",
        undoHint(*opId));
  });

  CLI::App* remove = pl->add_subcommand("remove", "Take tracks out of a playlist");
  remove->add_option("PLAYLIST", a->playlist, "Id or path")->required();
  remove->add_option("ID", a->ids, "Track ids")->required();
  remove->callback([&ctx, a] {
    OrvelDB& db = ctx.db();
    const int64_t id = resolvePlaylist(db, a->playlist);
    const auto current = db.playlists().orderedTrackIds(id);
    if (std::none_of(a->ids.begin(), a->ids.end(), [&](int64_t t) {
          return std::find(current.begin(), current.end(), t) != current.end();
        })) {
      ctx.out << fmt::format("None of the tracks given is in {}\n", quoted(db, id));
      return;
    }
    const auto before = db.playlists().playlistRowCount(id);
    const auto opId = db.playlists().removeFromPlaylist(a->ids, id);
    if (!opId) failed("removing from " + quoted(db, id), opId.status());
    const auto removed = static_cast<size_t>(before - db.playlists().playlistRowCount(id));
    ctx.out << fmt::format("Removed {} from {}{}\n", countOf(removed, "track"), quoted(db, id),
                           undoHint(*opId));
  });

  CLI::App* reorder = pl->add_subcommand(
      "reorder", "Put tracks first, in the order given; the rest follow as they were");
  reorder->add_option("PLAYLIST", a->playlist, "Id or path")->required();
  reorder->add_option("ID", a->ids, "Member track ids in their new order")->required();
  reorder->callback([&ctx, a] {
    OrvelDB& db = ctx.db();
    const int64_t id = resolvePlaylist(db, a->playlist);
    const auto order = newOrder(db, id, a->ids);
    const auto opId = db.playlists().reorderPlaylist(id, order);
    if (!opId) failed("reordering " + quoted(db, id), opId.status());
    ctx.out << fmt::format("Reordered {}{}\n", quoted(db, id), undoHint(*opId));
  });

  CLI::App* sh = pl->add_subcommand("show", "A playlist and its tracks, in order");
  sh->add_option("PLAYLIST", a->playlist, "Id or path")->required();
  sh->add_flag("--json", a->json, "One JSON object on stdout");
  sh->callback([&ctx, a] { show(ctx, resolvePlaylist(ctx.db(), a->playlist), a->json); });

  CLI::App* tree = pl->add_subcommand("tree", "Every playlist and crate, nested");
  tree->add_flag("--json", a->json, "One JSON array of nodes with their children");
  tree->callback([&ctx, a] {
    const auto roots = ctx.db().playlists().crateTree();
    if (a->json) {
      json arr = json::array();
      for (const auto& n : roots) arr.push_back(nodeJson(n));
      ctx.out << jsonText(arr, 2) << '\n';
      return;
    }
    if (roots.empty()) ctx.out << "No playlists yet: orvel playlist create NAME\n";
    printTree(ctx.out, roots, "");
  });
}

}  // namespace orvel::cli
