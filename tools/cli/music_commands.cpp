// orvel music migrate.
#include <memory>

#include "app/music_migration.h"
#include "core/text/visible.h"
#include "tools/cli/commands.h"

namespace orvel::cli {
namespace {

struct MusicArgs {
  std::string xml;
};

void runMigrate(Context& ctx, const MusicArgs& a) {
  // Opening the catalogue first brings its schema up to date for the scripts.
  ctx.db();
  app::MusicMigration migration;
  app::MusicMigration::Options options;
  options.database = ctx.dbPath();
  options.xml = a.xml;
  options.onProgress = [&ctx](const std::string& line) {
    ctx.out << visible(line) << "\n" << std::flush;
  };
  const auto result = migration.run(options);
  if (result.error) throw CliError(kFailed, visible(*result.error));
  ctx.out << result.summary.sentence() << (result.entries > 0 ? undoHint(result.opId) : "") << "\n";
  // The scripts' own reasons: a file name, a damaged library, a locked catalogue.
  for (const std::string& problem : result.problems) ctx.err << visible(problem) << "\n";
  if (!result.ok()) throw CliError(kFailed, "the Music migration did not finish");
}

}  // namespace

void addMusicCommands(CLI::App& app, Context& ctx) {
  auto a = std::make_shared<MusicArgs>();
  CLI::App* music = app.add_subcommand("music", "Apple Music");
  music->require_subcommand(1, 1);
  CLI::App* migrate = music->add_subcommand(
      "migrate",
      "Bring in Music's ratings, loved marks, play counts, dislikes and playlists (values set "
      "here are kept; one operation, undone with orvel undo)");
  migrate
      ->add_option("--xml", a->xml,
                   "The library XML Music exported (default: ~/Music/Music/Library.xml)")
      ->type_name("FILE");
  migrate->callback([&ctx, a] { runMigrate(ctx, *a); });
}

}  // namespace orvel::cli
