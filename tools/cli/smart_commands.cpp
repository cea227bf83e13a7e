// orvel smart (save|show|run): playlists whose members follow rules.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "core/text/visible.h"
#include "tools/cli/commands.h"

namespace orvel::cli {
namespace {

using nlohmann::json;

struct SmartArgs {
  std::string playlist;
  std::string name;
  std::vector<std::string> rules;
  bool any = false;
  bool all = false;
  int64_t limit = 0;
  std::string limitBy;
  bool isStatic = false;
  bool live = false;
  bool sql = false;
  bool json = false;
};

std::string joinIds(std::span<const SmartOption> options) {
  std::string out;
  for (const auto& o : options) out += (out.empty() ? "" : ", ") + std::string(o.id);
  return out;
}

std::string fieldList() {
  std::string out;
  for (const auto& f : SmartRule::fields()) out += (out.empty() ? "" : ", ") + std::string(f.id);
  return out;
}

json bindsJson(const std::vector<SmartBind>& binds) {
  json out = json::array();
  for (const SmartBind& b : binds) std::visit([&](const auto& v) { out.push_back(v); }, b);
  return out;
}

// "genre:contains:Deep House" -> a rule; the value may itself hold colons.
SmartRule parseRule(const std::string& text) {
  const auto first = text.find(':');
  const auto second = first == std::string::npos ? first : text.find(':', first + 1);
  if (second == std::string::npos)
    throw CliError(kBadUsage,
                   "a rule is FIELD:OP:VALUE, such as genre:contains:House (not '" + text + "')");
  const std::string field = text.substr(0, first);
  const std::string op = text.substr(first + 1, second - first - 1);
  const SmartField* f = SmartRule::fieldFor(field);
  if (f == nullptr)
    throw CliError(kBadUsage, "unknown field '" + field + "'; the fields are " + fieldList());
  const auto ops = SmartRule::ops(f->numeric);
  if (std::none_of(ops.begin(), ops.end(), [&](const SmartOption& o) { return o.id == op; }))
    throw CliError(kBadUsage,
                   fmt::format("'{}' is not an operator for {}; use {}", op, field, joinIds(ops)));
  SmartRule rule = SmartRule::make(field, op, text.substr(second + 1));
  if (auto why = rule.problem()) throw CliError(kBadUsage, *why);
  return rule;
}

std::string describe(const SmartRule& r) {
  const SmartField* f = SmartRule::fieldFor(r.field);
  std::string label = f ? std::string(f->label) : r.field;
  std::string op = r.op;
  for (bool numeric : {false, true})
    for (const auto& o : SmartRule::ops(numeric))
      if (o.id == r.op) op = std::string(o.label);
  return fmt::format("{} {} \"{}\"{}", label, op, r.value, r.op == "inLast" ? " days" : "");
}

// The playlist, which must be a smart one.
int64_t smartPlaylist(OrvelDB& db, const std::string& idOrPath) {
  const int64_t id = resolvePlaylist(db, idOrPath);
  if (db.playlists().playlistKind(id) != "smart")
    throw CliError(kFailed, "\"" + db.playlists().playlistPath(id) + "\" is not a smart playlist");
  return id;
}

void save(Context& ctx, const SmartArgs& a) {
  OrvelDB& db = ctx.db();
  SmartPlaylist p;
  std::optional<int64_t> existing;
  if (!a.playlist.empty()) {
    existing = smartPlaylist(db, a.playlist);
    if (auto loaded = db.smart().loadSmartRules(*existing))
      p = *loaded;
    else if (a.rules.empty())  // the default rule would match the whole library
      throw CliError(kBadUsage, "its rules are missing or damaged; give them again with --rule");
    p.name = db.playlists().playlist(*existing)->name;
  } else if (a.rules.empty()) {
    throw CliError(kBadUsage, "give at least one --rule FIELD:OP:VALUE");
  }
  if (!a.name.empty()) p.name = a.name;
  if (!a.rules.empty()) {
    p.rules.clear();
    for (const auto& r : a.rules) p.rules.push_back(parseRule(r));
  }
  if (a.any) p.matchAll = false;
  if (a.all) p.matchAll = true;
  // a.limit: 0 not given, -1 for "--limit 0" (no limit), else the count.
  if (a.limit > 0) {
    p.limitEnabled = true;
    p.limitCount = a.limit;
  } else if (a.limit < 0) {
    p.limitEnabled = false;
  }
  if (!a.limitBy.empty()) {
    const auto options = SmartPlaylist::limitOptions();
    if (std::none_of(options.begin(), options.end(),
                     [&](const SmartOption& o) { return o.id == a.limitBy; }))
      throw CliError(kBadUsage, "--limit-by takes one of " + joinIds(options));
    p.limitBy = a.limitBy;
  }
  if (a.isStatic) p.liveUpdate = false;
  if (a.live) p.liveUpdate = true;

  const SmartSaveResult r = db.smart().saveSmartPlaylist(p, existing);
  if (!r.playlistId) throw CliError(kFailed, r.error + "; nothing was changed");
  if (a.json) {
    ctx.out << jsonText(json{{"id", *r.playlistId},
                             {"name", p.name},
                             {"trackCount", r.trackCount},
                             {"live", p.liveUpdate},
                             {"opId", r.opId}},
                        2)
            << '\n';
    return;
  }
  ctx.out << fmt::format("Smart playlist “{}” #{}: {}{}\n", p.name, *r.playlistId,
                         countOf(static_cast<size_t>(r.trackCount), "track"), undoHint(r.opId));
}

void show(Context& ctx, const SmartArgs& a) {
  OrvelDB& db = ctx.db();
  const int64_t id = smartPlaylist(db, a.playlist);
  const auto p = db.smart().loadSmartRules(id);
  if (!p)
    throw CliError(kFailed, "the rules of \"" + db.playlists().playlistPath(id) +
                                "\" are missing or damaged; it keeps its saved members");
  const auto [sql, binds] = p->query();
  if (a.json) {
    ctx.out << jsonText(json{{"id", id},
                             {"rules", json::parse(p->toJSON())},
                             {"sql", sql},
                             {"binds", bindsJson(binds)}},
                        2)
            << '\n';
    return;
  }
  if (a.sql) {
    // The statement exactly as it runs, then its binds as SQL comments.
    ctx.out << sql << '\n';
    for (size_t i = 0; i < binds.size(); ++i)
      ctx.out << fmt::format("-- ?{} = {}\n", i + 1, visible(bindText(binds[i])));
    return;
  }
  ctx.out << fmt::format(
      "#{}  {}  ({}, {})\n", id, db.playlists().playlistPath(id), p->liveUpdate ? "live" : "static",
      countOf(static_cast<size_t>(db.playlists().playlistRowCount(id)), "track"));
  ctx.out << fmt::format("  match {} of:\n", p->matchAll ? "all" : "any");
  for (const auto& r : p->rules) ctx.out << "    " << describe(r) << '\n';
  if (p->limitEnabled) {
    std::string by = p->limitBy;
    for (const auto& o : SmartPlaylist::limitOptions())
      if (o.id == p->limitBy) by = std::string(o.label);
    ctx.out << fmt::format("  limited to {} by {}\n", std::max<int64_t>(p->limitCount, 1), by);
  }
}

void runPlaylist(Context& ctx, const SmartArgs& a) {
  OrvelDB& db = ctx.db();
  const int64_t id = smartPlaylist(db, a.playlist);
  const auto fresh = db.smart().refreshSmartPlaylist(id);
  if (!fresh)
    ctx.err << fmt::format("“{}” is not live: these are the members saved with it\n",
                           db.playlists().playlistPath(id));
  const auto rows = tracksInOrder(db, fresh ? *fresh : db.playlists().orderedTrackIds(id));
  if (a.json)
    printTrackJson(ctx.out, rows);
  else
    printTrackTable(ctx.out, rows);
}

}  // namespace

void addSmartCommands(CLI::App& app, Context& ctx) {
  auto a = std::make_shared<SmartArgs>();
  CLI::App* smart =
      app.add_subcommand("smart", "Smart playlists: members chosen by rules, kept up to date");
  smart->require_subcommand(1, 1);

  CLI::App* save = smart->add_subcommand(
      "save",
      "Make a smart playlist, or change one (--id): orvel smart save --name Peak --rule "
      "bpm:gt:125");
  save->add_option("--id", a->playlist, "Change this smart playlist (id or path)");
  save->add_option("--name", a->name, "Its name (default \"New Smart Playlist\")");
  save->add_option("--rule", a->rules,
                   "FIELD:OP:VALUE, repeatable. Fields: " + fieldList() +
                       ". Text operators: " + joinIds(SmartRule::ops(false)) +
                       ". Number operators: " + joinIds(SmartRule::ops(true)) +
                       " (inLast counts days)");
  auto* any = save->add_flag("--any", a->any, "Any rule may match (default: all must)");
  auto* all = save->add_flag("--all", a->all, "Every rule must match");
  any->excludes(all);
  save->add_option_function<int64_t>(
          "--limit", [a](int64_t n) { a->limit = n == 0 ? -1 : n; },
          "Keep at most N tracks (0: no limit)")
      ->check(CLI::NonNegativeNumber);
  save->add_option("--limit-by", a->limitBy,
                   "Which tracks the limit keeps: " + joinIds(SmartPlaylist::limitOptions()) +
                       " (\"title\" keeps by album)");
  auto* fixed =
      save->add_flag("--static", a->isStatic, "Keep the members found now (default: live)");
  auto* live = save->add_flag("--live", a->live, "Follow the catalogue as it changes");
  fixed->excludes(live);
  save->add_flag("--json", a->json, "One JSON object on stdout");
  save->callback([&ctx, a] { orvel::cli::save(ctx, *a); });

  CLI::App* sh = smart->add_subcommand("show", "A smart playlist's rules (--sql: its statement)");
  sh->add_option("PLAYLIST", a->playlist, "Id or path")->required();
  sh->add_flag("--sql", a->sql, "Print the SQL and its binds");
  sh->add_flag("--json", a->json, "One JSON object on stdout");
  sh->callback([&ctx, a] { show(ctx, *a); });

  CLI::App* run = smart->add_subcommand(
      "run", "Evaluate a smart playlist now and list its tracks (a live one is saved too)");
  run->add_option("PLAYLIST", a->playlist, "Id or path")->required();
  run->add_flag("--json", a->json, "One JSON array of tracks on stdout");
  run->callback([&ctx, a] { runPlaylist(ctx, *a); });
}

}  // namespace orvel::cli
