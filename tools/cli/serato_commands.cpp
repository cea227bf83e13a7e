// orvel serato tags|import|send, orvel export xml.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "app/crate_export.h"
#include "core/formats/serato_library.h"
#include "core/formats/serato_tags.h"
#include "core/import/serato_import.h"
#include "core/text/visible.h"
#include "tools/cli/commands.h"
#include "tools/cli/progress.h"
#include "tools/cli/table.h"

namespace orvel::cli {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

template <typename T>
json orNull(const std::optional<T>& v) {
  return v ? json(*v) : json(nullptr);
}

json tagsJson(const SeratoFileTags& tags) {
  json cues = json::array(), loops = json::array(), grid = json::array();
  for (const SeratoCue& c : tags.cues)
    cues.push_back({{"index", c.index},
                    {"positionMs", c.positionMs},
                    {"colorHex", orNull(c.colorHex)},
                    {"name", orNull(c.name)}});
  for (const SeratoLoop& l : tags.loops)
    loops.push_back({{"index", l.index},
                     {"startMs", l.startMs},
                     {"endMs", l.endMs},
                     {"colorHex", orNull(l.colorHex)},
                     {"locked", l.locked},
                     {"name", orNull(l.name)}});
  for (size_t i = 0; i < tags.gridAnchors.size(); ++i) {
    const SeratoGridAnchor& a = tags.gridAnchors[i];
    grid.push_back({{"positionSec", a.positionSec},
                    {"bpm", orNull(a.bpm)},
                    {"beatsToNext", orNull(a.beatsToNext)},
                    {"tempo", orNull(SeratoFileTags::tempoAt(tags.gridAnchors, i))}});
  }
  return {{"cues", cues},
          {"loops", loops},
          {"gridAnchors", grid},
          {"trackColorHex", orNull(tags.trackColorHex)},
          {"bpmLocked", orNull(tags.bpmLocked)}};
}

void printTags(Context& ctx, const std::string& file, const SeratoFileTags& tags) {
  if (tags.empty()) {
    ctx.out << "No Serato cues, loops or beat grid in " << file << "\n";
    return;
  }
  if (tags.trackColorHex || tags.bpmLocked) {
    std::vector<std::string> facts;
    if (tags.trackColorHex) facts.push_back("track colour " + *tags.trackColorHex);
    if (tags.bpmLocked)
      facts.push_back(*tags.bpmLocked ? "beat grid locked" : "beat grid unlocked");
    ctx.out << fmt::format("{}\n", fmt::join(facts, ", "));
  }
  if (!tags.cues.empty()) {
    Table table({{"SLOT", 4, true}, {"AT", 12, true}, {"COLOR", 7}, {"NAME", 40}});
    for (const SeratoCue& c : tags.cues)
      table.add({std::to_string(c.index), clockTime(c.positionMs), c.colorHex.value_or(""),
                 c.name.value_or("")});
    ctx.out << "Cues\n";
    table.print(ctx.out);
  }
  if (!tags.loops.empty()) {
    Table table({{"SLOT", 4, true},
                 {"FROM", 12, true},
                 {"TO", 12, true},
                 {"COLOR", 7},
                 {"LOCKED", 6},
                 {"NAME", 40}});
    for (const SeratoLoop& l : tags.loops)
      table.add({std::to_string(l.index), clockTime(l.startMs), clockTime(l.endMs),
                 l.colorHex.value_or(""), l.locked ? "yes" : "", l.name.value_or("")});
    ctx.out << "Loops\n";
    table.print(ctx.out);
  }
  if (!tags.gridAnchors.empty()) {
    Table table({{"AT", 12, true}, {"BEATS", 6, true}, {"BPM", 8, true}});
    for (size_t i = 0; i < tags.gridAnchors.size(); ++i) {
      const SeratoGridAnchor& a = tags.gridAnchors[i];
      const auto tempo = SeratoFileTags::tempoAt(tags.gridAnchors, i);
      table.add({clockTime(a.positionSec * 1000),
                 a.beatsToNext ? std::to_string(*a.beatsToNext) : "",
                 tempo ? fmt::format("{:.2f}", *tempo) : ""});
    }
    ctx.out << "Beat grid\n";
    table.print(ctx.out);
  }
}

json countsJson(const SeratoImportResult& r) {
  const SeratoRefreshCounts& c = r.counts;
  return {{"tracksAdded", c.tracksAdded}, {"tracksFilled", c.tracksFilled},
          {"cratesAdded", c.cratesAdded}, {"addedLinks", c.addedLinks},
          {"ghosts", c.ghosts},           {"smartUpdated", c.smartUpdated},
          {"tagsStored", c.tagsStored},   {"skippedTrackChunks", c.skippedTrackChunks},
          {"filesRead", r.filesRead},     {"filesFailed", r.filesFailed}};
}

struct SeratoArgs {
  std::string file;
  std::string dir;
  std::string crate;
  std::vector<std::string> crates;
  bool json = false;
  bool replace = false;
};

// The _Serato_ folder itself, or a drive (or folder) that holds one.
fs::path seratoFolder(const std::string& given) {
  if (given.empty()) return defaultSeratoDir();
  const fs::path dir(given);
  std::error_code ec;
  const bool isLibrary = fs::exists(dir / SeratoLibrary::kDatabaseFile, ec) ||
                         fs::is_directory(dir / SeratoLibrary::kCratesFolder, ec) ||
                         fs::is_directory(dir / SeratoLibrary::kSmartCratesFolder, ec);
  if (!isLibrary && fs::is_directory(dir / "_Serato_", ec)) return dir / "_Serato_";
  return dir;
}

void runImport(Context& ctx, const SeratoArgs& a) {
  const fs::path dir = seratoFolder(a.dir);
  OrvelDB& db = ctx.db();
  InterruptGuard interrupt;
  ProgressBar bar(ctx.err, ctx.errIsTerminal, "Reading Serato tags");
  SeratoImportOptions opt;
  opt.cancel = &InterruptGuard::flag();
  opt.onProgress = [&](size_t done, size_t total) { bar.update(done, total, {}); };
  const SeratoImportResult r = readFromSerato(db, dir, opt);
  bar.clear();

  using Outcome = SeratoImportResult::Outcome;
  if (r.outcome == Outcome::noLibrary)
    throw CliError(kFailed, fmt::format("{} (no folder {})", r.message, dir.string()));
  if (r.outcome == Outcome::failed) throw CliError(kFailed, r.message);
  if (a.json) {
    ctx.out << jsonText({{"outcome", r.outcome == Outcome::updated ? "updated" : "upToDate"},
                         {"message", r.message},
                         {"counts", countsJson(r)}})
            << "\n";
  } else {
    ctx.out << r.message << "\n";
    if (r.counts.skippedTrackChunks > 0)
      ctx.out << fmt::format("{} in Serato's database could not be read\n",
                             countOf(static_cast<size_t>(r.counts.skippedTrackChunks), "record"));
  }
  if (r.filesFailed > 0)
    throw CliError(kFailed,
                   fmt::format("the cues and grids of {} could not be stored: {}",
                               countOf(static_cast<size_t>(r.filesFailed), "file"), r.failure));
  if (r.cancelled)
    throw CliError(kFailed, fmt::format("interrupted after {}; run it again for the rest",
                                        countOf(static_cast<size_t>(r.filesRead), "file")));
}

void runSend(Context& ctx, const SeratoArgs& a) {
  OrvelDB& db = ctx.db();
  const int64_t crate = resolvePlaylist(db, a.crate);
  const auto r = app::CrateExport::sendToSerato(ctx.dbPath(), crate, a.dir, a.replace);
  using Outcome = app::CrateExport::SendResult::Outcome;
  // Crate names and file names are the user's text and may hold anything.
  if (r.outcome == Outcome::seratoRunning) throw CliError(kFailed, r.title + ": " + r.message);
  if (r.outcome != Outcome::sent) throw CliError(kFailed, visible(r.message));
  ctx.out << visible(r.output) << "\n";
}

void runExportXml(Context& ctx, const SeratoArgs& a) {
  OrvelDB& db = ctx.db();
  std::vector<int64_t> ids;
  for (const std::string& c : a.crates) ids.push_back(resolvePlaylist(db, c));
  const auto r = app::CrateExport::exportXML(db, ids, a.file);
  if (r.error) throw CliError(kFailed, *r.error);
  ctx.out << fmt::format("Exported {} in {} to {}\n",
                         countOf(static_cast<size_t>(r.tracks), "track"),
                         countOf(static_cast<size_t>(r.playlists), "playlist"), a.file);
}

}  // namespace

void addSeratoCommands(CLI::App& app, Context& ctx) {
  auto a = std::make_shared<SeratoArgs>();
  CLI::App* serato = app.add_subcommand("serato", "Serato DJ: file tags, library and crates");
  serato->require_subcommand(1, 1);

  CLI::App* tags = serato->add_subcommand(
      "tags", "The cues, loops and beat grid Serato keeps in an audio file's tags");
  tags->add_option("FILE", a->file, "An audio file")->required();
  tags->add_flag("--json", a->json, "As JSON: cues, loops, gridAnchors");
  tags->callback([&ctx, a] {
    std::error_code ec;
    if (!fs::is_regular_file(a->file, ec)) throw CliError(kFailed, "no such file: " + a->file);
    const SeratoFileTags t = SeratoFileTags::read(a->file);
    if (a->json)
      ctx.out << jsonText(tagsJson(t)) << "\n";
    else
      printTags(ctx, a->file, t);
  });

  CLI::App* importCommand = serato->add_subcommand(
      "import", "Read Serato's library: tracks, crates, smart crates, cues and beat grids");
  importCommand->add_option(
      "DIR", a->dir, "The _Serato_ folder, or the drive it is on (default: ~/Music/_Serato_)");
  importCommand->add_flag("--json", a->json, "The outcome and counts as JSON");
  importCommand->callback([&ctx, a] { runImport(ctx, *a); });

  CLI::App* send = serato->add_subcommand(
      "send", "Write a crate or playlist into Serato's crates (Serato must not be running)");
  send->add_option("CRATE", a->crate, "Id or path")->required();
  send->add_option("--serato-dir", a->dir, "The _Serato_ folder (default: ~/Music/_Serato_)")
      ->type_name("DIR");
  send->add_flag("--replace", a->replace,
                 "Replace a crate file Orvel did not write (the old one is kept as a .bak copy)");
  send->callback([&ctx, a] { runSend(ctx, *a); });

  CLI::App* exp = app.add_subcommand("export", "Export to other DJ software");
  exp->require_subcommand(1, 1);
  CLI::App* xml = exp->add_subcommand(
      "xml", "Crates and playlists with their tracks, cues and tempo as a DJ collection XML file");
  xml->add_option("FILE", a->file, "The .xml file to write")->required();
  xml->add_option("--crate", a->crates,
                  "Only these crates or playlists (id or path), with what "
                  "is below them; default: all")
      ->type_name("ID");
  xml->callback([&ctx, a] { runExportXml(ctx, *a); });
}

}  // namespace orvel::cli
