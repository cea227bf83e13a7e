// orvel info, backup, snapshot, snapshots, relink.
#include <fmt/format.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "app/app_paths.h"
#include "core/store/locations.h"
#include "core/text/visible.h"
#include "tools/cli/commands.h"
#include "tools/cli/table.h"

namespace orvel::cli {
namespace {

using nlohmann::json;

json infoJson(Context& ctx) {
  OrvelDB& db = ctx.db();
  const auto n = [&](const std::string& sql) { return db.scalarInt(sql).value_or(0); };
  std::error_code ec;
  const auto bytes = std::filesystem::file_size(ctx.dbPath(), ec);
  json collisions = json::array();
  for (const auto& [key, count] : db.pathNormCollisions())
    collisions.push_back({{"pathNorm", key}, {"count", count}});
  return {
      {"paths",
       {{"database", ctx.dbPath()},
        {"databaseBytes", ec ? 0 : bytes},
        {"support", locations::supportDir().string()},
        {"log", locations::logFile().string()},
        {"backups", locations::backupsDir().string()},
        {"snapshots", db.snapshots().dir().string()}}},
      {"schema",
       {{"userVersion", db.userVersion()},
        {"uniquePathIndex", db.hasIndex("idx_tracks_path_norm_unique")},
        {"pathNormCollisions", collisions}}},
      {"counts",
       {{"tracks", n("SELECT COUNT(*) FROM tracks WHERE merged_into IS NULL AND "
                     "COALESCE(removed, 0) = 0")},
        {"removed", n("SELECT COUNT(*) FROM tracks WHERE COALESCE(removed, 0) <> 0 AND merged_into "
                      "IS NULL")},
        {"merged", n("SELECT COUNT(*) FROM tracks WHERE merged_into IS NOT NULL")},
        {"missing", n("SELECT COUNT(*) FROM tracks WHERE file_missing = 1 AND merged_into IS NULL "
                      "AND COALESCE(removed, 0) = 0")},
        {"playlists", n("SELECT COUNT(*) FROM playlists")},
        {"cues", n("SELECT COUNT(*) FROM cues")},
        {"plays", n("SELECT COUNT(*) FROM play_history")},
        {"operations", n("SELECT COUNT(DISTINCT op_id) FROM history")}}},
  };
}

// "ok", or what SQLite's integrity_check found (at most 20 problems).
json integrity(OrvelDB& db) {
  json found = json::array();
  Statement st = db.prepare("PRAGMA integrity_check(20)");
  int rc = SQLITE_ROW;
  while ((rc = st.stepCode()) == SQLITE_ROW) found.push_back(st.text(0));
  if (rc != SQLITE_DONE || found.empty()) found.push_back(db.connection().errorMessage());
  return found;
}

void printInfo(std::ostream& out, const json& j) {
  const auto& p = j["paths"];
  const auto& s = j["schema"];
  const auto& c = j["counts"];
  const auto mb = static_cast<double>(p["databaseBytes"].get<uint64_t>()) / 1e6;
  out << fmt::format("catalogue   {} ({:.1f} MB)\n", p["database"].get<std::string>(), mb);
  out << fmt::format("support     {}\n", p["support"].get<std::string>());
  out << fmt::format("log         {}\n", p["log"].get<std::string>());
  out << fmt::format("backups     {}\n", p["backups"].get<std::string>());
  out << fmt::format("snapshots   {}\n", p["snapshots"].get<std::string>());
  std::string schema = fmt::format("user_version {}", s["userVersion"].get<int64_t>());
  if (s["uniquePathIndex"].get<bool>()) {
    schema += " · one live track per file";
  } else {
    schema += fmt::format(
        " · {} files are held by more than one live track; remove or merge the "
        "extra rows (see --json)",
        s["pathNormCollisions"].size());
  }
  out << fmt::format("schema      {}\n", schema);
  out << fmt::format("tracks      {} live · {} removed · {} merged · {} missing\n",
                     c["tracks"].get<int64_t>(), c["removed"].get<int64_t>(),
                     c["merged"].get<int64_t>(), c["missing"].get<int64_t>());
  out << fmt::format("library     {} playlists · {} cues · {} plays · {} edits in history\n",
                     c["playlists"].get<int64_t>(), c["cues"].get<int64_t>(),
                     c["plays"].get<int64_t>(), c["operations"].get<int64_t>());
  if (j.contains("integrity")) {
    std::string found;
    for (const auto& line : j["integrity"])
      found += (found.empty() ? "" : "; ") + visible(line.get<std::string>());
    out << fmt::format("integrity   {}\n", found);
  }
}

}  // namespace

void addInfoCommand(CLI::App& app, Context& ctx) {
  auto asJson = std::make_shared<bool>(false);
  auto check = std::make_shared<bool>(false);
  CLI::App* info = app.add_subcommand("info", "Paths, schema state and counts");
  info->add_flag("--json", *asJson, "One JSON object on stdout");
  info->add_flag("--check", *check,
                 "Also read every page of the catalogue (SQLite's integrity_check) and fail if any "
                 "is damaged");
  info->callback([&ctx, asJson, check] {
    json j = infoJson(ctx);
    ctx.requireIntact();
    if (*check) j["integrity"] = integrity(ctx.db());
    if (*asJson)
      ctx.out << jsonText(j, 2) << '\n';
    else
      printInfo(ctx.out, j);
    if (*check && j["integrity"] != json::array({"ok"}))
      throw CliError(kFailed, "the catalogue " + ctx.dbPath() + " is damaged; " + kRestoreAdvice);
  });
}

void addMaintenanceCommands(CLI::App& app, Context& ctx) {
  auto keep = std::make_shared<int>(10);
  CLI::App* backup = app.add_subcommand("backup", "Copy the catalogue into the Backups folder now");
  backup->add_option("--keep", *keep, "Keep the newest N backups (default 10)")
      ->check(CLI::PositiveNumber);
  backup->callback([&ctx, keep] {
    ctx.db();  // a catalogue that cannot be opened fails here with its reason
    const auto file = app::AppPaths::backupDatabaseNow(ctx.dbPath(), *keep);
    if (!file) failed("the backup", file.status());
    ctx.out << "backed up to " << file->string() << '\n';
  });

  auto reason = std::make_shared<std::string>();
  CLI::App* snapshot = app.add_subcommand(
      "snapshot", "Save a compacted copy of the whole catalogue (the newest 4 are kept)");
  snapshot->add_option("REASON", *reason, "A note kept in the snapshot's name");
  snapshot->callback([&ctx, reason] {
    Snapshots& snaps = ctx.db().snapshots();
    const auto file = snaps.take(*reason, 0);
    if (!file)
      throw CliError(
          kFailed, "no snapshot was taken: " + snaps.lastError() + "; the catalogue is unchanged");
    ctx.out << "Library snapshot saved: " << file->string() << '\n';
  });

  auto listJson = std::make_shared<bool>(false);
  CLI::App* snapshots = app.add_subcommand("snapshots", "The catalogue's snapshots, newest first");
  snapshots->add_flag("--json", *listJson, "One JSON array on stdout");
  snapshots->callback([&ctx, listJson] {
    const Snapshots& snaps = ctx.db().snapshots();
    const auto list = snaps.list();
    if (*listJson) {
      json arr = json::array();
      for (const auto& s : list)
        arr.push_back(
            {{"file", s.file.string()}, {"reason", s.reason}, {"at", s.at}, {"bytes", s.bytes}});
      ctx.out << jsonText(arr, 2) << '\n';
      return;
    }
    if (list.empty()) {
      ctx.out << "No snapshots yet in " << snaps.dir().string() << " (orvel snapshot [REASON])\n";
      return;
    }
    Table table({{"WHEN", 19}, {"SIZE", 9, true}, {"REASON", 40}, {"FILE", 80}});
    for (const auto& s : list)
      table.add({localTime(s.at), fmt::format("{:.1f} MB", static_cast<double>(s.bytes) / 1e6),
                 s.reason, s.file.string()});
    table.print(ctx.out);
  });

  auto apply = std::make_shared<bool>(false);
  auto asJson = std::make_shared<bool>(false);
  CLI::App* relink = app.add_subcommand(
      "relink",
      "Find tracks whose files moved (by their audio, never the file name alone) and relink them "
      "(a dry run unless --apply)");
  relink->add_flag("--apply", *apply,
                   "Move each track to its file's new place, keeping everything about it; mark "
                   "the rest missing");
  relink->add_flag("--json", *asJson, "One JSON object on stdout");
  relink->callback([&ctx, apply, asJson] {
    OrvelDB& db = ctx.db();
    const RelinkStats s = db.tracks().relink(*apply);
    // A relink is not applied without a snapshot to go back to as well.
    if (!s.status && !s.snapshot)
      throw CliError(kFailed, "could not take a snapshot first (" + s.status.message() +
                                  "); nothing was changed");
    if (s.snapshot) ctx.err << "snapshot to go back to: " << *s.snapshot << '\n';
    // The counts would claim what was not written.
    if (!s.status) failed("relinking", s.status);
    if (*asJson) {
      ctx.out << jsonText(json{{"applied", *apply},
                               {"dead", s.dead},
                               {"relinked", s.relinked},
                               {"ambiguous", s.ambiguous},
                               {"unmatched", s.unmatched},
                               {"linksMoved", s.linksMoved},
                               {"offline", s.offline},
                               {"snapshot", s.snapshot ? json(*s.snapshot) : json(nullptr)},
                               {"opId", s.opId ? json(*s.opId) : json(nullptr)}},
                          2)
              << '\n';
      return;
    }
    ctx.out << fmt::format(
        "{} files not found: {} {} (the same audio found elsewhere), {} with several "
        "candidates, {} with none{}\n",
        s.dead, s.relinked, *apply ? "relinked" : "can be relinked", s.ambiguous, s.unmatched,
        *apply ? fmt::format(" (marked missing); {} playlist places taken over", s.linksMoved)
               : " — run with --apply to relink");
    if (s.opId) ctx.out << fmt::format("(undo with: orvel undo {})\n", *s.opId);
    if (s.offline > 0)
      ctx.out << fmt::format("{} on drives that are not connected were left alone\n",
                             countOf(static_cast<size_t>(s.offline), "track"));
  });
}

}  // namespace orvel::cli
