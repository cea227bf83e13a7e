// orvel set, rate, love, dislike, rm: journaled edits, each one operation
// that `orvel undo` reverses.
#include <fmt/format.h>

#include <cctype>

#include "core/store/journal.h"
#include "core/store/track_values.h"
#include "tools/cli/commands.h"

namespace orvel::cli {
namespace {

struct EditArgs {
  std::string field;
  std::string value;
  int stars = 0;
  bool off = false;
  std::vector<int64_t> ids;
};

std::string titleCase(std::string s) {
  bool start = true;
  for (char& c : s) {
    if (c == '_' || c == ' ') {
      c = ' ';
      start = true;
    } else if (start) {
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      start = false;
    }
  }
  return s;
}

// The editor's toast is the command's answer, with how to take it back.
void report(Context& ctx, const library::EditResult& r) {
  switch (r.outcome) {
    case library::EditResult::Outcome::done:
      ctx.out << r.toast.text << undoHint(r.opId) << '\n';
      return;
    case library::EditResult::Outcome::nothing:
      ctx.out << r.toast.text << '\n';
      return;
    case library::EditResult::Outcome::declined:
      throw CliError(kFailed, "cancelled; nothing was changed");
    case library::EditResult::Outcome::failed:
      throw CliError(kFailed, r.toast.text + "; nothing was changed");
  }
}

library::LibraryEditor editor(Context& ctx) {
  return library::LibraryEditor(ctx.db(), ctx.asker());
}

}  // namespace

void requireLiveTracks(Context& ctx, std::span<const int64_t> ids) {
  const auto live = ctx.db().tracks().existingIds(ids);
  if (live.size() == ids.size()) return;
  for (int64_t id : ids)
    if (std::find(live.begin(), live.end(), id) == live.end())
      throw CliError(kFailed, "no track with id " + std::to_string(id) + "; nothing was changed");
}

std::string countOf(size_t n, const std::string& noun) {
  return fmt::format("{} {}{}", n, noun, n == 1 ? "" : "s");
}

std::string undoHint(const std::string& opId) {
  return " (undo with: orvel undo " + opId + ")";
}

void failed(const std::string& what, const Status& why) {
  throw CliError(kFailed, what + " failed: " + describe(why) + "; nothing was changed");
}

void addEditCommands(CLI::App& app, Context& ctx) {
  auto a = std::make_shared<EditArgs>();

  CLI::App* set = app.add_subcommand(
      "set",
      "Set one field on tracks (an empty VALUE clears it), e.g. orvel set genre House 12 14");
  set->add_option("FIELD", a->field,
                  "Field: title, artist, album, genre, year, bpm, key, comment, …")
      ->required();
  set->add_option("VALUE", a->value, "New value; \"\" clears the field")->required();
  set->add_option("ID", a->ids, "Track ids")->required();
  set->callback([&ctx, a] {
    OrvelDB& db = ctx.db();
    const std::string column = TrackStore::columnFor(a->field);
    if (!db.tracks().hasTrackColumn(column))
      throw CliError(kBadUsage, "unknown field '" + a->field + "'");
    // Only fields that undo can write back may be edited from here, so every
    // edit made on the command line can be taken back.
    if (!Journal::isWritable("tracks", column))
      throw CliError(kBadUsage, "the field '" + a->field + "' cannot be edited");
    if (Status s = checkTrackValue(db.connection(), column, a->field, a->value); !s)
      throw CliError(kBadUsage, s.message());
    requireLiveTracks(ctx, a->ids);
    report(ctx, editor(ctx).setField(a->ids, a->field, titleCase(a->field), a->value));
  });

  CLI::App* rate = app.add_subcommand("rate", "Rate tracks from 0 to 5 stars");
  rate->add_option("STARS", a->stars, "0 to 5")->required()->check(CLI::Range(0, 5));
  rate->add_option("ID", a->ids, "Track ids")->required();
  rate->callback([&ctx, a] {
    requireLiveTracks(ctx, a->ids);
    report(ctx, editor(ctx).setRating(a->ids, a->stars));
  });

  CLI::App* love = app.add_subcommand("love", "Mark tracks as loved (--off to take it back)");
  love->add_flag("--off", a->off, "Remove the mark");
  love->add_option("ID", a->ids, "Track ids")->required();
  love->callback([&ctx, a] {
    requireLiveTracks(ctx, a->ids);
    report(ctx, editor(ctx).setLoved(a->ids, !a->off));
  });

  CLI::App* dislike = app.add_subcommand(
      "dislike", "Mark tracks as disliked, hiding them from every list (--off to take it back)");
  dislike->add_flag("--off", a->off, "Remove the mark");
  dislike->add_option("ID", a->ids, "Track ids")->required();
  dislike->callback([&ctx, a] {
    requireLiveTracks(ctx, a->ids);
    report(ctx, editor(ctx).setDisliked(a->ids, !a->off));
  });

  CLI::App* rm = app.add_subcommand(
      "rm", "Remove tracks from the library (files stay on disk; undo brings them back)");
  rm->add_option("ID", a->ids, "Track ids")->required();
  rm->callback([&ctx, a] {
    requireLiveTracks(ctx, a->ids);
    report(ctx, editor(ctx).removeTracks(a->ids));
  });
}

}  // namespace orvel::cli
