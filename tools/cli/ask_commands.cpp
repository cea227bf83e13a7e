// orvel ask: tracks found by a question in plain words, through the assistant.
#include <QCoreApplication>
#include <memory>
#include <nlohmann/json.hpp>

#include "app/assistant.h"
#include "core/text/visible.h"
#include "tools/cli/commands.h"

namespace orvel::cli {

void ensureQtApplication() {
  if (QCoreApplication::instance() != nullptr) return;
  static int argc = 1;
  static char name[] = "orvel";
  static char* argv[] = {name, nullptr};
  static QCoreApplication application(argc, argv);
}

void addAskCommands(CLI::App& app, Context& ctx) {
  auto* cmd = app.add_subcommand(
      "ask",
      "Find tracks by asking in plain words (needs an Anthropic API key: orvel config ai-key)");
  cmd->footer("What is sent: " + std::string(app::kAskPrivacyNote) +
              "\nORVEL_AI_KEY, when set, is used instead of the key in the keychain.");
  struct Args {
    std::vector<std::string> words;
    bool json = false;
  };
  auto args = std::make_shared<Args>();
  cmd->add_option("QUESTION", args->words, "The question, e.g. orvel ask house over 124 bpm")
      ->required();
  cmd->add_flag("--json", args->json, "The query and the matching ids as one JSON object");
  cmd->callback([&ctx, args] {
    std::string question;
    for (const auto& w : args->words) question += (question.empty() ? "" : " ") + w;
    ensureQtApplication();
    // The store opens the catalogue first, so a catalogue in WAL mode has the
    // files beside it that the read-only view needs.
    OrvelDB& db = ctx.db();
    app::KeychainStore secrets;
    app::AI ai(secrets, ctx.dbPath());
    const app::TrackQueryResult result = ai.trackQuery(question);
    if (!result.ok()) throw CliError(kFailed, result.error);
    if (args->json) {
      ctx.out << jsonText({{"query", result.statement}, {"ids", result.ids}}) << "\n";
      return;
    }
    ctx.out << "query: " << visible(result.statement) << "\n";
    printTrackTable(ctx.out, tracksInOrder(db, result.ids));
  });
}

}  // namespace orvel::cli
