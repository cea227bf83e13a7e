#include "tools/cli/cli.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "core/store/log.h"
#include "tools/cli/commands.h"
#include "tools/cli/progress.h"

namespace orvel::cli {

int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  Context ctx(out, err);
  // Progress bars only for a person at a terminal, never into a test's stream.
  ctx.errIsTerminal = &err == &std::cerr && stderrIsTerminal();
  CLI::App app("Orvel: a music library for DJs and record collectors", "orvel");
  app.set_version_flag("--version", "orvel 0.1.0");
  app.require_subcommand(1, 1);
  app.fallthrough();
  app.add_option("--db", ctx.dbOption, "Use the catalogue at PATH instead of the usual one")
      ->type_name("PATH");
  app.add_flag("-v,--verbose", ctx.verbose, "Also show the store's log lines on stderr");

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

  std::vector<const char*> argv{"orvel"};
  for (const auto& a : args) argv.push_back(a.c_str());
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e, out, err);
  } catch (const CLI::ParseError& e) {
    err << "orvel: " << e.what() << "\n";
    if (e.get_name() == "RequiredError" && app.get_subcommands().empty())
      err << "Run 'orvel --help' for the commands.\n";
    return kBadUsage;
  } catch (const CliError& e) {
    err << "orvel: " << e.what() << "\n";
    return e.code();
  } catch (const std::exception& e) {
    err << "orvel: " << e.what() << "\n";
    return kFailed;
  }
  return kDone;
}

}  // namespace orvel::cli
