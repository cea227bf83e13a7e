// orvel import, orvel watch.
#include <fmt/format.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>

#include "app/audio/decoder.h"
#include "app/settings.h"
#include "core/import/import_report.h"
#include "core/import/library_watcher.h"
#include "core/store/log.h"
#include "core/text/visible.h"
#include "tools/cli/commands.h"
#include "tools/cli/progress.h"

namespace orvel::cli {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

LibraryWatcher::Config watchConfig() {
  const app::Settings s;
  return {s.watchMusicFolder(), s.mediaRoot()};
}

void printFailures(Context& ctx, const Importer::Result& r) {
  for (const auto& f : r.failures)
    ctx.err << "orvel: cannot import " << visible(f.path) << ": " << visible(f.reason) << "\n";
}

// A file that FFmpeg cannot open as audio (a text or a database renamed
// .mp3) is not a track, whatever its extension and TagLib say.
std::optional<std::string> whyNotAudio(const fs::path& file) {
  if (audio::Decoder::probe(file)) return std::nullopt;
  return "it holds no audio that can be played (FFmpeg cannot read it as audio)";
}

json resultJson(const Importer::Result& r) {
  json failures = json::array();
  for (const auto& f : r.failures) failures.push_back({{"path", f.path}, {"reason", f.reason}});
  return {{"added", r.added},
          {"dupes", r.dupes},
          {"failed", r.failed},
          {"failures", failures},
          {"notReached", r.notReached}};
}

struct ImportArgs {
  std::vector<std::string> paths;
  bool copy = false;
  std::string mediaRoot;
  bool json = false;
};

void runImport(Context& ctx, const ImportArgs& a) {
  // Every path is checked before anything is imported: a typo should not
  // leave half of a list imported.
  std::vector<fs::path> paths;
  for (const auto& p : a.paths) {
    std::error_code ec;
    if (!fs::exists(p, ec)) throw CliError(kFailed, "no such file or folder: " + p);
    paths.emplace_back(p);
  }
  Importer::Options opt;
  opt.copyFiles = a.copy;
  opt.whyNotAudio = whyNotAudio;
  if (!a.mediaRoot.empty())
    opt.mediaRoot = fs::absolute(a.mediaRoot).lexically_normal();
  else
    opt.mediaRoot = app::Settings().mediaRoot();
  if (a.copy && !opt.mediaRoot)
    throw CliError(kBadUsage,
                   "--copy needs a media root: give --media-root DIR or set one with "
                   "'orvel config mediaRoot DIR'");

  OrvelDB& db = ctx.db();
  InterruptGuard interrupt;
  ProgressBar bar(ctx.err, ctx.errIsTerminal, "Importing");
  opt.cancel = &InterruptGuard::flag();
  opt.onProgress = [&](const Importer::Progress& p) { bar.update(p.done, p.total, p.current); };
  const auto r = Importer::importInPlace(paths, db, opt, "command line");
  bar.clear();

  if (a.json)
    ctx.out << jsonText(resultJson(r)) << "\n";
  else
    ctx.out << Importer::statusText(r) << "\n";
  printFailures(ctx, r);
  if (!r.stopped.isOk())
    throw CliError(kFailed,
                   fmt::format("the import stopped: {}; {} not imported{}", describe(r.stopped),
                               countOf(static_cast<size_t>(r.notReached), "file"),
                               r.added.empty() ? "" : " (the rest are in the library)"));
  if (r.notReached > 0)
    throw CliError(kFailed,
                   fmt::format("interrupted; {} not imported (the rest are in the library)",
                               countOf(static_cast<size_t>(r.notReached), "file")));
  if (r.failed > 0)
    throw CliError(kFailed, fmt::format("{} could not be imported",
                                        countOf(static_cast<size_t>(r.failed), "file")));
}

void printImport(Context& ctx, OrvelDB& db, const Importer::Result& r) {
  ctx.out << localTimeText(unixNow(), "%H:%M:%S") << " " << Importer::statusText(r) << "\n";
  for (const int64_t id : r.added) {
    if (const auto t = db.tracks().loadTrack(id))
      ctx.out << fmt::format("  + {} – {}  ({})\n", visible(t->artist()), visible(t->title()),
                             visible(t->path()));
  }
  printFailures(ctx, r);
  if (!r.stopped.isOk())
    ctx.err << "orvel: the import stopped: " << describe(r.stopped) << "; "
            << countOf(static_cast<size_t>(r.notReached), "file")
            << " will be tried again when they change\n";
  ctx.out << std::flush;
}

void runWatch(Context& ctx) {
  LibraryWatcher::Config config = watchConfig();
  if (!config.mediaRoot)
    throw CliError(kFailed,
                   "there is no media root to watch; set one with 'orvel config mediaRoot DIR'");
  if (!config.watchMusicFolder)
    throw CliError(kFailed,
                   "watching the music folder is switched off; switch it on with 'orvel config "
                   "watchMusicFolder true'");
  OrvelDB& db = ctx.db();

  std::mutex mutex;
  std::condition_variable wake;
  bool pending = false;
  LibraryWatcher watcher([&] {
    {
      std::lock_guard lock(mutex);
      pending = true;
    }
    wake.notify_one();
  });
  InterruptGuard interrupt;
  if (!watcher.start(config)) throw CliError(kFailed, watcher.lastError());
  ctx.out << "Watching " << config.mediaRoot->string() << " (Ctrl-C to stop)\n" << std::flush;

  auto lastLook = std::chrono::steady_clock::now();
  while (!InterruptGuard::flag()) {
    bool drain = false;
    {
      std::unique_lock lock(mutex);
      wake.wait_for(lock, std::chrono::milliseconds(200), [&] { return pending; });
      drain = std::exchange(pending, false);
    }
    if (drain) {
      const auto fresh = watcher.drain(db);
      if (!fresh.empty()) {
        Importer::Options opt;  // the files already lie in the media root: no copying
        opt.mediaRoot = watcher.config().mediaRoot;
        opt.whyNotAudio = whyNotAudio;
        opt.cancel = &InterruptGuard::flag();
        printImport(ctx, db, Importer::importInPlace(fresh, db, opt, "watcher"));
      }
    }
    // Settings changed elsewhere (the window, `orvel config`) restart the watch.
    if (std::chrono::steady_clock::now() - lastLook > std::chrono::seconds(1)) {
      lastLook = std::chrono::steady_clock::now();
      const auto now = watchConfig();
      if (watcher.restartIfChanged(now)) {
        if (watcher.watching())
          ctx.out << "Watching " << now.mediaRoot->string() << "\n";
        else if (!watcher.lastError().empty())
          ctx.out << "Stopped watching: " << watcher.lastError() << "\n";
        else
          ctx.out << "Stopped watching: "
                  << (now.mediaRoot ? "watchMusicFolder is off" : "there is no media root") << "\n";
        ctx.out << std::flush;
      }
    }
  }
  watcher.stop();
  ctx.out << "Stopped\n";
}

}  // namespace

void addImportCommands(CLI::App& app, Context& ctx) {
  auto a = std::make_shared<ImportArgs>();
  CLI::App* importer = app.add_subcommand("import", "Add audio files and folders to the library");
  importer->add_option("PATH", a->paths, "Files and folders; folders are searched at any depth")
      ->required();
  importer->add_flag("--copy", a->copy,
                     "Copy files from outside the media root into it, by artist and album");
  importer
      ->add_option("--media-root", a->mediaRoot,
                   "The media root for this import (default: the mediaRoot setting)")
      ->type_name("DIR");
  importer->add_flag("--json", a->json, "The outcome as JSON: added ids, dupes, failures");
  importer->callback([&ctx, a] { runImport(ctx, *a); });

  CLI::App* watch = app.add_subcommand(
      "watch", "Watch the media root and import new audio files until interrupted");
  watch->callback([&ctx] { runWatch(ctx); });
}

}  // namespace orvel::cli
