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

void report(Context& ctx, const Result<std::string>& opId, const std::string& what, size_t n) {
  if (!opId) failed(what, opId.status());
  ctx.out << what << " on " << countOf(n, "track") << undoHint(*opId) << '\n';
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

std::string describe(const Status& why) {
  const std::string& m = why.message();
  switch (why.code()) {
    case Status::Code::busy:
      return "another program is writing the catalogue and held it longer than Orvel waits (" + m +
             "); try again when it is done";
    case Status::Code::readOnly:
      return "the catalogue cannot be written: its file or folder is read-only (" + m + ")";
    case Status::Code::full:
      return "the disk is full (" + m + ")";
    case Status::Code::corrupt:
      return "the catalogue is damaged (" + m + "); " + kRestoreAdvice;
    default:
      return m.empty() ? "no reason was given" : m;
  }
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
    const std::optional<std::string> value =
        a->value.empty() ? std::nullopt : std::optional<std::string>(a->value);
    const std::string opName = "Edit " + titleCase(a->field);
    report(ctx, db.tracks().setField(column, value, a->ids, opName), opName, a->ids.size());
  });

  CLI::App* rate = app.add_subcommand("rate", "Rate tracks from 0 to 5 stars");
  rate->add_option("STARS", a->stars, "0 to 5")->required()->check(CLI::Range(0, 5));
  rate->add_option("ID", a->ids, "Track ids")->required();
  rate->callback([&ctx, a] {
    requireLiveTracks(ctx, a->ids);
    report(ctx, ctx.db().tracks().setRating(a->ids, a->stars), "Set Rating", a->ids.size());
  });

  CLI::App* love = app.add_subcommand("love", "Mark tracks as loved (--off to take it back)");
  love->add_flag("--off", a->off, "Remove the mark");
  love->add_option("ID", a->ids, "Track ids")->required();
  love->callback([&ctx, a] {
    requireLiveTracks(ctx, a->ids);
    report(ctx, ctx.db().tracks().setLoved(a->ids, !a->off), a->off ? "Unlove" : "Love",
           a->ids.size());
  });

  CLI::App* dislike =
      app.add_subcommand("dislike", "Mark tracks as disliked (--off to take it back)");
  dislike->add_flag("--off", a->off, "Remove the mark");
  dislike->add_option("ID", a->ids, "Track ids")->required();
  dislike->callback([&ctx, a] {
    requireLiveTracks(ctx, a->ids);
    report(ctx, ctx.db().tracks().setDisliked(a->ids, !a->off),
           a->off ? "Clear Dislike" : "Dislike", a->ids.size());
  });

  CLI::App* rm = app.add_subcommand(
      "rm", "Remove tracks from the library (files stay on disk; undo brings them back)");
  rm->add_option("ID", a->ids, "Track ids")->required();
  rm->callback([&ctx, a] {
    requireLiveTracks(ctx, a->ids);
    report(ctx, ctx.db().tracks().softRemove(a->ids), "Remove from Library", a->ids.size());
  });
}

}  // namespace orvel::cli
