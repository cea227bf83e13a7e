#include "tools/cli/cli.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <set>

#include "core/store/log.h"
#include "core/text/visible.h"
#include "tools/cli/commands.h"
#include "tools/cli/progress.h"

namespace orvel::cli {

int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err, Input input) {
  Context ctx(out, err);
  ctx.input = input;
  // Progress bars only for a person at a terminal, never into a test's stream.
  ctx.errIsTerminal = &err == &std::cerr && stderrIsTerminal();
  CLI::App app("Orvel: a music library for DJs and record collectors", "orvel");
  app.set_version_flag("--version", "orvel 0.1.0");
  app.require_subcommand(1, 1);
  app.fallthrough();
  app.add_option("--db", ctx.dbOption, "Use the catalogue at PATH instead of the usual one")
      ->type_name("PATH");
  app.add_flag("-v,--verbose", ctx.verbose, "Also show the store's log lines on stderr");
  app.add_flag("-y,--yes", ctx.yes,
               "Answer yes to questions such as \"Rate 40 tracks?\" (needed for edits of 31 "
               "tracks or more when no one is at a terminal)");
  app.add_option("--busy-timeout", ctx.busyTimeoutMs,
                 "How long to wait for another program that is writing the catalogue before "
                 "failing, in milliseconds (default 5000)")
      ->check(CLI::NonNegativeNumber)
      ->type_name("MS");

  addInfoCommand(app, ctx);
  addListCommands(app, ctx);
  addEditCommands(app, ctx);
  addHistoryCommands(app, ctx);
  addMaintenanceCommands(app, ctx);
  addPlaylistCommands(app, ctx);
  addCueCommands(app, ctx);
  addSmartCommands(app, ctx);
  addImportCommands(app, ctx);
  addConfigCommands(app, ctx);
  addSeratoCommands(app, ctx);
  addMusicCommands(app, ctx);
  addAnalysisCommands(app, ctx);
  addAskCommands(app, ctx);

  // Commands that change the catalogue get the automatic backup first; a
  // command not named here is taken to write, so a new one is never missed.
  app.parse_complete_callback([&app, &ctx] {
    static const std::set<std::string, std::less<>> kReaders = {
        "info",     "ls",         "show",        "history",       "backup",
        "snapshot", "snapshots",  "config",      "ask",           "key",
        "waveform", "export",     "repair",      "playlist show", "playlist tree",
        "cue ls",   "smart show", "serato tags", "serato send",   "categories",
        "browse",   "duplicates"};
    std::string path;
    const CLI::App* at = &app;
    while (!at->get_subcommands().empty()) {
      at = at->get_subcommands().front();
      path += (path.empty() ? "" : " ") + at->get_name();
    }
    const bool dryRelink = path == "relink" && at->get_option("--apply")->count() == 0;
    ctx.autoBackup = !kReaders.contains(path) && !dryRelink;
  });

  std::vector<const char*> argv{"orvel"};
  for (const auto& a : args) argv.push_back(a.c_str());
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
    // Whatever the command read, a damaged page it met makes it a failure.
    ctx.requireIntact();
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e, out, err);
  } catch (const CLI::ParseError& e) {
    err << "orvel: " << visible(e.what()) << "\n";
    if (e.get_name() == "RequiredError" && app.get_subcommands().empty())
      err << "Run 'orvel --help' for the commands.\n";
    return kBadUsage;
  } catch (const CliError& e) {
    // A reason may quote a tag, a file name or a server's words: one line,
    // with nothing in it a terminal would act on.
    err << "orvel: " << visible(e.what()) << "\n";
    return e.code();
  } catch (const std::exception& e) {
    err << "orvel: " << visible(e.what()) << "\n";
    return kFailed;
  }
  return kDone;
}

}  // namespace orvel::cli
