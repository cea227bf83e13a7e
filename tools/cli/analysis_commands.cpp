// orvel analyze, waveform, scan, repair, key.
#include <fmt/format.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "app/app_paths.h"
#include "app/audio/analysis_pass.h"
#include "app/audio/decoder.h"
#include "app/audio/defect_repair.h"
#include "app/audio/defect_scan.h"
#include "app/audio/waveform.h"
#include "app/parallel_jobs.h"
#include "app/settings.h"
#include "app/waveform_image.h"
#include "core/text/key_names.h"
#include "core/text/visible.h"
#include "tools/cli/commands.h"
#include "tools/cli/progress.h"

namespace orvel::cli {
namespace {

namespace fs = std::filesystem;
using audio::DefectScan;
using nlohmann::json;

struct Target {
  int64_t id = 0;
  std::string path;
};

bool allDigits(const std::string& s) {
  return !s.empty() &&
         std::all_of(s.begin(), s.end(), [](unsigned char c) { return std::isdigit(c); });
}

// Ids and paths from the command line as catalogue tracks; fails on the
// first that is not one, before any work starts.
std::vector<Target> resolveTargets(OrvelDB& db, const std::vector<std::string>& args) {
  std::vector<Target> out;
  for (const std::string& a : args) {
    std::optional<int64_t> id;
    if (allDigits(a)) {
      id = std::stoll(a);
    } else {
      std::error_code ec;
      const fs::path p = fs::absolute(a, ec).lexically_normal();
      id = db.tracks().liveTrackId(p.string());
      if (!id)
        throw CliError(kFailed, fmt::format("not in the catalogue: {} (import it first)", a));
    }
    auto row = db.tracks().loadTrack(*id);
    if (!row) throw CliError(kFailed, fmt::format("no track with id {}", *id));
    out.push_back({*id, std::string(row->path())});
  }
  return out;
}

// Live tracks whose file is present that lack what `need` says.
std::vector<Target> liveTargets(const OrvelDB& db, AnalysisStore::Need need) {
  std::vector<Target> out;
  for (auto& t : db.analysis().presentTracks(need)) out.push_back({t.id, std::move(t.path)});
  return out;
}

audio::AnalyzerSettings analyzerSettings() {
  const app::Settings settings;
  audio::AnalyzerSettings s;
  s.bpmCeiling = settings.bpmCeiling();
  if (auto helper = app::AppPaths::helper("orvel-keyfinder")) s.keyHelper = *helper;
  return s;
}

std::string defectSummary(std::span<const DefectScan::Defect> defects) {
  size_t clicks = 0, dropouts = 0;
  for (const auto& d : defects) (d.kind == DefectScan::Defect::Kind::click ? clicks : dropouts)++;
  if (clicks + dropouts == 0) return "clean";
  std::vector<std::string> parts;
  if (clicks) parts.push_back(countOf(clicks, "click"));
  if (dropouts) parts.push_back(countOf(dropouts, "dropout"));
  return fmt::format("{}", fmt::join(parts, ", "));
}

json defectJson(const DefectScan::Defect& d) {
  return {
      {"kind", DefectScan::kindName(d.kind)}, {"atSeconds", d.atSeconds}, {"severity", d.severity}};
}

struct AnalyzeArgs {
  std::vector<std::string> targets;
  bool force = false;
  bool json = false;
  unsigned jobs = 0;
};

void runAnalyze(Context& ctx, const AnalyzeArgs& a) {
  OrvelDB& db = ctx.db();
  using Need = AnalysisStore::Need;
  const std::vector<Target> targets =
      !a.targets.empty() ? resolveTargets(db, a.targets)
                         : liveTargets(db, a.force ? Need::everything : Need::analysis);
  if (targets.empty()) {
    if (a.json)
      ctx.out << "[]\n";
    else
      ctx.out << "Every track is analysed (use --force to analyse them again)\n";
    return;
  }
  audio::PassSettings settings{analyzerSettings()};
  InterruptGuard interrupt;
  ProgressBar bar(ctx.err, ctx.errIsTerminal, "Analysing");
  // One history operation for the whole run's automatic cues, so undo
  // takes them back at once and the history is not flooded.
  const std::string cuesOp = db.journal().begin("Analyze Cues");
  size_t done = 0, stored = 0, unreadable = 0, unstored = 0, tempos = 0, keys = 0, damaged = 0;
  Status fatal;
  json results = json::array();
  std::function<audio::PassResult(size_t)> work = [&](size_t i) {
    return audio::analyseFile(targets[i].path, settings);
  };
  std::function<void(size_t, audio::PassResult&)> store = [&](size_t i, audio::PassResult& r) {
    const Target& t = targets[i];
    ++done;
    // Once the catalogue cannot be written at all, the files still finishing
    // are not tried (nor each reported): the one cause is said at the end.
    if (!fatal) return;
    const audio::PassStored s = audio::storePass(db, t.id, r, cuesOp);
    if (!r.readable) {
      ++unreadable;
      bar.clear();
      ctx.err << "orvel: cannot analyse " << visible(t.path) << ": the audio could not be read\n";
    } else if (!s.status && s.status.blocksEveryWrite()) {
      fatal = s.status;
      InterruptGuard::stop();
      return;
    } else if (!s.status) {
      ++unstored;
      bar.clear();
      ctx.err << "orvel: cannot store the analysis of " << visible(t.path) << ": "
              << describe(s.status) << "\n";
    } else {
      ++stored;
    }
    tempos += s.bpm;
    keys += s.key;
    damaged += s.scanned && !r.defects.empty();
    bar.update(done, targets.size(), fs::path(t.path).filename().string());
    if (a.json && s.status) {
      json defects = json::array();
      for (const auto& d : r.defects) defects.push_back(defectJson(d));
      const auto& an = r.analysis;
      results.push_back({{"id", t.id},
                         {"path", t.path},
                         {"readable", r.readable},
                         {"bpm", an.bpm ? json(*an.bpm) : json(nullptr)},
                         {"key", an.key ? json(*an.key) : json(nullptr)},
                         {"inMs", an.inMs ? json(*an.inMs) : json(nullptr)},
                         {"outMs", an.outMs ? json(*an.outMs) : json(nullptr)},
                         {"defects", defects}});
    }
  };
  app::forEachParallel<audio::PassResult>(targets.size(), a.jobs, InterruptGuard::flag(), work,
                                          store);
  bar.clear();
  if (a.json) {
    ctx.out << jsonText(results) << "\n";
  } else {
    ctx.out << fmt::format("Analysed {}: {} and {} filled, {} with defects",
                           countOf(stored, "track"), countOf(tempos, "tempo"), countOf(keys, "key"),
                           countOf(damaged, "track"))
            << (unreadable ? fmt::format("; {} could not be read", countOf(unreadable, "file"))
                           : "")
            << (unstored ? fmt::format("; {} not stored", countOf(unstored, "result")) : "")
            << "\n";
  }
  if (!fatal)
    throw CliError(kFailed, fmt::format("the analysis stopped: {}; {} of {} stored",
                                        describe(fatal), stored, targets.size()));
  if (done < targets.size())
    throw CliError(kFailed, fmt::format("interrupted after {} of {}; run it again for the rest",
                                        done, targets.size()));
  if (unstored)
    throw CliError(kFailed,
                   fmt::format("the results of {} could not be stored", countOf(unstored, "file")));
  if (unreadable)
    throw CliError(kFailed, fmt::format("{} could not be read", countOf(unreadable, "file")));
}

struct WaveformArgs {
  std::string target;
  std::string png;
  int width = app::WaveformImage::kDefaultWidth;
  int height = app::WaveformImage::kDefaultHeight;
  bool json = false;
};

// The levels as a line of block characters, for a look without a picture.
std::string sparkline(const std::vector<uint8_t>& blob, size_t width) {
  static const char* const kBlocks[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  std::string out;
  const size_t columns = blob.size() / 4;
  for (size_t x = 0; x < width; ++x) {
    uint8_t peak = 0;
    for (size_t c = x * columns / width; c < (x + 1) * columns / width; ++c)
      peak = std::max(peak, blob[c * 4]);
    out += kBlocks[peak * 8 / 255];
  }
  return out;
}

void runWaveform(Context& ctx, const WaveformArgs& a) {
  std::optional<std::vector<uint8_t>> blob;
  std::string path = a.target;
  if (allDigits(a.target)) {
    OrvelDB& db = ctx.db();
    const Target t = resolveTargets(db, {a.target}).front();
    path = t.path;
    // A stored blob is used as it is; only a missing one is computed (and kept).
    blob = db.analysis().waveform(t.id);
    if (!blob) {
      blob = audio::WaveformLoader::compute(t.path);
      // Keeping it only saves the next look a decode: say so, and still show it.
      const Status kept = blob ? db.analysis().setWaveform(t.id, *blob) : Status::ok();
      if (!kept)
        ctx.err << "orvel: the waveform of " << t.path << " was not kept: " << kept.message()
                << "\n";
    }
  } else {
    std::error_code ec;
    if (!fs::is_regular_file(a.target, ec)) throw CliError(kFailed, "no such file: " + a.target);
    blob = audio::WaveformLoader::compute(a.target);
  }
  if (!blob || blob->size() != audio::WaveformLoader::kBytes)
    throw CliError(kFailed,
                   "no waveform: the audio of " + path + " could not be read or is too short");
  if (!a.png.empty()) {
    if (const std::string why = app::WaveformImage::savePng(*blob, a.png, a.width, a.height);
        !why.empty())
      throw CliError(kFailed, "could not write " + a.png + ": " + why);
    if (!a.json) ctx.out << "Wrote " << a.png << "\n";
  }
  if (a.json) {
    json columns = json::array();
    for (size_t c = 0; c < blob->size(); c += 4)
      columns.push_back({(*blob)[c], (*blob)[c + 1], (*blob)[c + 2], (*blob)[c + 3]});
    ctx.out << jsonText({{"path", path}, {"columns", columns}}) << "\n";
  } else if (a.png.empty()) {
    ctx.out << sparkline(*blob, 80) << "\n";
  }
}

struct ScanArgs {
  std::vector<std::string> targets;
  bool json = false;
  unsigned jobs = 0;
};

void runScan(Context& ctx, const ScanArgs& a) {
  OrvelDB& db = ctx.db();
  const std::vector<Target> targets = a.targets.empty()
                                          ? liveTargets(db, AnalysisStore::Need::defectScan)
                                          : resolveTargets(db, a.targets);
  if (targets.empty()) {
    ctx.out << (a.json ? "[]\n" : "Every track is scanned; name tracks to re-scan them\n");
    return;
  }
  InterruptGuard interrupt;
  ProgressBar bar(ctx.err, ctx.errIsTerminal, "Scanning");
  size_t done = 0, stored = 0, unreadable = 0, unstored = 0, damaged = 0;
  Status fatal;
  json results = json::array();
  using Found = std::optional<std::vector<DefectScan::Defect>>;
  std::function<Found(size_t)> work = [&](size_t i) -> Found {
    auto audio = DefectScan::decodeMono(targets[i].path);
    if (!audio) return std::nullopt;
    return DefectScan::dropRhythmic(DefectScan::analyse(audio->samples, audio->rate));
  };
  std::function<void(size_t, Found&)> store = [&](size_t i, Found& found) {
    const Target& t = targets[i];
    ++done;
    if (!fatal) return;
    bar.update(done, targets.size(), fs::path(t.path).filename().string());
    if (!found) {
      ++unreadable;
      bar.clear();
      ctx.err << "orvel: cannot scan " << visible(t.path) << ": the audio could not be read\n";
      return;
    }
    if (Status s = DefectScan::record(db, t.id, *found); !s) {
      if (s.blocksEveryWrite()) {
        fatal = s;
        InterruptGuard::stop();
        return;
      }
      ++unstored;
      bar.clear();
      ctx.err << "orvel: cannot store the scan of " << visible(t.path) << ": " << describe(s)
              << "\n";
      return;
    }
    ++stored;
    damaged += !found->empty();
    if (a.json) {
      json defects = json::array();
      for (const auto& d : *found) defects.push_back(defectJson(d));
      results.push_back({{"id", t.id}, {"path", t.path}, {"defects", defects}});
    } else if (!found->empty()) {
      bar.clear();
      ctx.out << fmt::format("{:>6}  {}: {}\n", t.id, visible(t.path), defectSummary(*found));
    }
  };
  app::forEachParallel<Found>(targets.size(), a.jobs, InterruptGuard::flag(), work, store);
  bar.clear();
  if (a.json)
    ctx.out << jsonText(results) << "\n";
  else
    ctx.out << fmt::format("Scanned {}: {} with defects\n", countOf(stored, "track"),
                           countOf(damaged, "track"));
  if (!fatal)
    throw CliError(kFailed, fmt::format("the scan stopped: {}; {} of {} stored", describe(fatal),
                                        stored, targets.size()));
  if (done < targets.size())
    throw CliError(kFailed, fmt::format("interrupted after {} of {}", done, targets.size()));
  if (unstored)
    throw CliError(kFailed,
                   fmt::format("the scans of {} could not be stored", countOf(unstored, "file")));
  if (unreadable)
    throw CliError(kFailed, fmt::format("{} could not be read", countOf(unreadable, "file")));
}

void runRepair(Context& ctx, const std::string& idText) {
  OrvelDB& db = ctx.db();
  if (!allDigits(idText)) throw CliError(kBadUsage, "Select the track you want fixed (a track id)");
  const Target t = resolveTargets(db, {idText}).front();
  // "Nothing damaged" is only true of audio that was read and scanned.
  if (!audio::Decoder::probe(t.path))
    throw CliError(kFailed, "cannot read " + visible(t.path) + " as audio; nothing to repair");
  const std::vector<DefectScan::Defect> defects = DefectScan::stored(db, t.id);
  if (defects.empty()) {
    const auto scanned = db.analysis().scannedTracks();
    if (std::find(scanned.begin(), scanned.end(), t.id) == scanned.end())
      throw CliError(kFailed, fmt::format("track {} has not been scanned yet; run 'orvel scan {}' "
                                          "first",
                                          t.id, t.id));
    throw CliError(kFailed, "Nothing damaged to repair");
  }
  auto script = app::AppPaths::script("fix_encode.py");
  if (!script) throw CliError(kFailed, "fix_encode.py is missing from this installation");
  audio::RepairTools tools;
  tools.python = app::AppPaths::python();
  tools.leadingArgs = app::AppPaths::pythonArgs({});
  tools.script = *script;
  const audio::RepairResult r = audio::DefectRepair::repair(t.path, defects, tools);
  if (!r.ok) throw CliError(kFailed, r.message);
  ctx.out << r.message << "\n";
}

}  // namespace

void addAnalysisCommands(CLI::App& app, Context& ctx) {
  auto an = std::make_shared<AnalyzeArgs>();
  CLI::App* analyze = app.add_subcommand(
      "analyze",
      "Tempo, key, in/out cues, waveform, defect scan and fingerprint, one decode per file");
  analyze->add_option("TRACK", an->targets,
                      "Track ids or file paths (default: every track not yet analysed)");
  analyze->add_flag("--force", an->force,
                    "Analyse every track again (a tempo or key already set is kept)");
  analyze->add_option("--jobs", an->jobs, "Files analysed at once (default: one per core)");
  analyze->add_flag("--json", an->json, "Each track's results as JSON");
  analyze->callback([&ctx, an] { runAnalyze(ctx, *an); });

  auto wf = std::make_shared<WaveformArgs>();
  CLI::App* waveform = app.add_subcommand("waveform", "A track's overview waveform");
  waveform->add_option("TRACK", wf->target, "A track id or an audio file")->required();
  waveform->add_option("--png", wf->png, "Draw it into this PNG file")->type_name("FILE");
  waveform->add_option("--width", wf->width, "Picture width")->check(CLI::Range(16, 20000));
  waveform->add_option("--height", wf->height, "Picture height")->check(CLI::Range(8, 4000));
  waveform->add_flag("--json", wf->json, "The 800 columns (level, low, mid, high) as JSON");
  waveform->callback([&ctx, wf] { runWaveform(ctx, *wf); });

  auto sc = std::make_shared<ScanArgs>();
  CLI::App* scan = app.add_subcommand("scan", "Look for clicks and dropouts");
  scan->add_option("TRACK", sc->targets,
                   "Track ids or file paths to (re-)scan (default: every track not yet scanned)");
  scan->add_option("--jobs", sc->jobs, "Files scanned at once (default: one per core)");
  scan->add_flag("--json", sc->json, "The findings as JSON");
  scan->callback([&ctx, sc] { runScan(ctx, *sc); });

  auto repairId = std::make_shared<std::string>();
  CLI::App* repair = app.add_subcommand(
      "repair",
      "Write a repaired copy beside the file, named \"… (fix)\"; the file itself is not changed");
  repair->add_option("TRACK", *repairId, "The track id")->required();
  repair->callback([&ctx, repairId] { runRepair(ctx, *repairId); });

  auto key = std::make_shared<std::pair<std::string, std::string>>();
  auto semis = std::make_shared<int>(0);
  CLI::App* keys = app.add_subcommand("key", "Key names: show in a notation, transpose");
  keys->require_subcommand(1, 1);
  CLI::App* label = keys->add_subcommand("label", "A key in the chosen notation");
  label->add_option("KEY", key->first, "A key: Am, F#, 8A, 1m…")->required();
  label
      ->add_option("--notation", key->second,
                   "standard, camelot, openKey or both (default: the \"keyNotation\" setting)")
      ->check(CLI::IsMember({"standard", "camelot", "openKey", "both"}));
  label->callback([&ctx, key] {
    const std::string notation = key->second.empty() ? app::Settings().keyNotation() : key->second;
    if (!KeyColor::camelot(key->first)) throw CliError(kFailed, "not a key: " + key->first);
    ctx.out << KeyColor::label(key->first, KeyColor::notation(notation)) << "\n";
  });
  CLI::App* transpose = keys->add_subcommand("transpose", "A key moved by semitones");
  transpose->add_option("KEY", key->first, "A key: Am, F#, 8A, 1m…")->required();
  transpose->add_option("SEMITONES", *semis, "Up (or down, negative)")->required();
  transpose->callback([&ctx, key, semis] {
    const std::string moved = MusicKey::transpose(key->first, *semis);
    if (!KeyColor::camelot(moved) && !MusicKey::parse(moved))
      throw CliError(kFailed, "not a key: " + key->first);
    ctx.out << moved << "\n";
  });
}

}  // namespace orvel::cli
