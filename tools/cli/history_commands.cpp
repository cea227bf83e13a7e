// orvel history, undo, redo.
#include <fmt/format.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "core/store/log.h"
#include "tools/cli/commands.h"
#include "tools/cli/table.h"

namespace orvel::cli {
namespace {

using nlohmann::json;

// The operation to act on: the one named, or the default the window's menu
// command would pick.
Journal::Operation pick(Context& ctx, const std::string& opId, bool undoing) {
  Journal& j = ctx.db().journal();
  if (opId.empty()) {
    auto op = undoing ? j.lastUndoable() : j.lastRedoable();
    if (!op) throw CliError(kFailed, undoing ? "nothing to undo" : "nothing to redo");
    return *op;
  }
  const auto entries = j.entries(opId);
  if (entries.empty()) throw CliError(kFailed, "no operation with id " + opId);
  bool allUndone = true;
  for (const auto& e : entries) allUndone = allUndone && e.undone;
  return {opId, entries.front().opName, static_cast<int64_t>(entries.size()), entries.back().at,
          allUndone};
}

void undoOrRedo(Context& ctx, const std::string& opId, bool undoing) {
  const Journal::Operation op = pick(ctx, opId, undoing);
  Journal& j = ctx.db().journal();
  const auto done = undoing ? j.undo(op.id) : j.redo(op.id);
  if (!done)
    failed(fmt::format("{} \"{}\" ({})", undoing ? "undoing" : "redoing", op.opName, op.id),
           done.status());
  if (done->applied == 0 && done->kept == 0 && (undoing ? op.undone : !op.undone))
    throw CliError(kFailed, fmt::format("\"{}\" ({}) is already {}", op.opName, op.id,
                                        undoing ? "undone" : "in force"));
  // A value a later edit changed since stays as that edit left it; say so,
  // or the user would take the old value to be back.
  const std::string kept = done->kept == 0 ? ""
                                           : fmt::format(", kept {} newer {}", done->kept,
                                                         done->kept == 1 ? "value" : "values");
  ctx.out << fmt::format("{} \"{}\" ({}{}, {})\n", undoing ? "Undid" : "Redid", op.opName,
                         countOf(static_cast<size_t>(done->applied), "change"), kept, op.id);
}

}  // namespace

std::string localTime(int64_t unixSeconds) {
  return localTimeText(unixSeconds, "%Y-%m-%d %H:%M:%S");
}

void addHistoryCommands(CLI::App& app, Context& ctx) {
  auto limit = std::make_shared<int>(50);
  auto asJson = std::make_shared<bool>(false);
  CLI::App* history = app.add_subcommand("history", "The edit history, newest first");
  history->add_option("--limit", *limit, "At most N operations (default 50)")
      ->check(CLI::PositiveNumber);
  history->add_flag("--json", *asJson, "One JSON array of operations on stdout");
  history->callback([&ctx, limit, asJson] {
    Journal& journal = ctx.db().journal();
    const auto ops = journal.inRecordedOrder(journal.operations(*limit));
    if (*asJson) {
      json arr = json::array();
      for (const auto& op : ops)
        arr.push_back({{"id", op.id},
                       {"opName", op.opName},
                       {"entries", op.entries},
                       {"at", op.at},
                       {"undone", op.undone}});
      ctx.out << jsonText(arr, 2) << '\n';
      return;
    }
    Table table({{"OPERATION", 60}, {"WHEN", 19}, {"WHAT", 40}, {"CHANGES", 8, true}, {"", 6}});
    for (const auto& op : ops)
      table.add({op.id, localTime(op.at), op.opName, std::to_string(op.entries),
                 op.undone ? "undone" : ""});
    table.print(ctx.out);
  });

  auto opId = std::make_shared<std::string>();
  CLI::App* undo = app.add_subcommand("undo", "Undo an operation (default: the last one in force)");
  undo->add_option("OPID", *opId, "Operation id from `orvel history`");
  undo->callback([&ctx, opId] { undoOrRedo(ctx, *opId, true); });

  CLI::App* redo =
      app.add_subcommand("redo", "Redo an undone operation (default: the last one undone)");
  redo->add_option("OPID", *opId, "Operation id from `orvel history`");
  redo->callback([&ctx, opId] { undoOrRedo(ctx, *opId, false); });
}

}  // namespace orvel::cli
