// orvel cue (add|set|loop|move|rm|ls): the user's hot cues and loops.
#include <fmt/format.h>

#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "core/text/split.h"
#include "tools/cli/commands.h"
#include "tools/cli/table.h"
#include "tools/cli/track_json.h"

namespace orvel::cli {
namespace {

using nlohmann::json;

constexpr const char* kTimeHelp =
    "a time: milliseconds (90500), seconds (90.5s) or minutes:seconds (1:30.5)";

struct CueArgs {
  int64_t track = 0;
  int slot = 0;
  int64_t cueId = 0;
  std::string position;
  std::string length;
  std::vector<int64_t> cueIds;
  bool json = false;
};

std::optional<double> number(std::string_view text) {
  const std::string s(text);
  if (s.empty() || std::isspace(static_cast<unsigned char>(s.front()))) return std::nullopt;
  char* end = nullptr;
  const double v = std::strtod(s.c_str(), &end);
  if (end != s.c_str() + s.size() || !std::isfinite(v) || v < 0) return std::nullopt;
  return v;
}

// Milliseconds from "90500", "90500ms", "90.5s", "1:30.5" or "1:02:03".
double parseTime(const std::string& text, const char* what) {
  std::optional<double> ms;
  if (text.find(':') != std::string::npos) {
    const auto parts = split(text, ':');
    double seconds = 0;
    bool ok = parts.size() <= 3;
    for (size_t i = 0; ok && i < parts.size(); ++i) {
      const auto v = number(parts[i]);
      // Every part but the first counts up to 60.
      ok = v && (i == 0 || *v < 60) && (i + 1 == parts.size() || *v == std::floor(*v));
      if (ok) seconds = seconds * 60 + *v;
    }
    if (ok) ms = seconds * 1000;
  } else if (text.ends_with("ms")) {
    ms = number(std::string_view(text).substr(0, text.size() - 2));
  } else if (text.ends_with("s")) {
    if (auto s = number(std::string_view(text).substr(0, text.size() - 1))) ms = *s * 1000;
  } else {
    ms = number(text);
  }
  if (!ms) throw CliError(kBadUsage, fmt::format("{} '{}' is not {}", what, text, kTimeHelp));
  return *ms;
}

void requireTrack(Context& ctx, int64_t track) {
  requireLiveTracks(ctx, std::vector<int64_t>{track});
}

CueRow requireCue(Context& ctx, int64_t id) {
  auto cue = ctx.db().cues().cue(id);
  if (!cue) throw CliError(kFailed, fmt::format("no cue with id {}; nothing was changed", id));
  return *cue;
}

}  // namespace

std::string clockTime(double ms) {
  const auto total = static_cast<int64_t>(std::llround(ms));
  return fmt::format("{}:{:02}.{:03}", total / 60000, (total / 1000) % 60, total % 1000);
}

void addCueCommands(CLI::App& app, Context& ctx) {
  auto a = std::make_shared<CueArgs>();
  CLI::App* cue = app.add_subcommand(
      "cue", "Hot cues and loops: eight slots (0-7) of each per track; times like 1:30.5");
  cue->require_subcommand(1, 1);

  CLI::App* ls = cue->add_subcommand("ls", "A track's cues and loops");
  ls->add_option("TRACK", a->track, "Track id")->required();
  ls->add_flag("--json", a->json, "One JSON array on stdout");
  ls->callback([&ctx, a] {
    OrvelDB& db = ctx.db();
    if (!db.tracks().loadTrack(a->track))
      throw CliError(kFailed, fmt::format("no track with id {}", a->track));
    const auto cues = db.cues().cues(a->track);
    if (a->json) {
      json arr = json::array();
      for (const auto& c : cues) arr.push_back(toJson(c));
      ctx.out << jsonText(arr, 2) << '\n';
      return;
    }
    if (cues.empty()) {
      ctx.out << fmt::format("No cues on track {}: orvel cue add {} TIME\n", a->track, a->track);
      return;
    }
    Table table({{"CUE", 10, true},
                 {"KIND", 5},
                 {"SLOT", 4, true},
                 {"AT", 10, true},
                 {"LENGTH", 10, true},
                 {"NAME", 24},
                 {"COLOR", 8},
                 {"FROM", 6}});
    for (const auto& c : cues)
      table.add({std::to_string(c.id), c.kind, std::to_string(c.index), clockTime(c.positionMs),
                 c.lengthMs ? clockTime(*c.lengthMs) : "", c.name, c.color,
                 c.sourceId ? "import" : "orvel"});
    table.print(ctx.out);
  });

  CLI::App* add = cue->add_subcommand("add", "Add a cue in the lowest free slot");
  add->add_option("TRACK", a->track, "Track id")->required();
  add->add_option("TIME", a->position, kTimeHelp)->required();
  add->callback([&ctx, a] {
    const double at = parseTime(a->position, "the time");
    requireTrack(ctx, a->track);
    const auto edit = ctx.db().cues().addManualCue(a->track, at);
    if (!edit) failed("adding a cue", edit.status());
    ctx.out << fmt::format("Cue {} at {} on track {}{}\n", edit->slot, clockTime(at), a->track,
                           undoHint(edit->opId));
  });

  CLI::App* set = cue->add_subcommand("set", "Put a cue in a given slot, replacing what is there");
  set->add_option("TRACK", a->track, "Track id")->required();
  set->add_option("SLOT", a->slot, "0 to 7")->required();
  set->add_option("TIME", a->position, kTimeHelp)->required();
  set->callback([&ctx, a] {
    if (a->slot < 0 || a->slot >= kCueSlots)
      throw CliError(kBadUsage,
                     fmt::format("a cue slot is 0 to {}, not {}", kCueSlots - 1, a->slot));
    const double at = parseTime(a->position, "the time");
    requireTrack(ctx, a->track);
    const auto opId = ctx.db().cues().setCue(a->track, a->slot, at);
    if (!opId) failed("setting the cue", opId.status());
    ctx.out << fmt::format("Cue {} at {} on track {}{}\n", a->slot, clockTime(at), a->track,
                           undoHint(*opId));
  });

  CLI::App* loop = cue->add_subcommand("loop", "Add a loop in the lowest free loop slot");
  loop->add_option("TRACK", a->track, "Track id")->required();
  loop->add_option("START", a->position, kTimeHelp)->required();
  loop->add_option("LENGTH", a->length, "its length, as a time")->required();
  loop->callback([&ctx, a] {
    const double start = parseTime(a->position, "the start");
    const double length = parseTime(a->length, "the length");
    if (length <= 0) throw CliError(kBadUsage, "a loop needs a length above zero");
    requireTrack(ctx, a->track);
    const auto edit = ctx.db().cues().addManualLoop(a->track, start, length);
    if (!edit) failed("adding a loop", edit.status());
    ctx.out << fmt::format("Loop {} at {} for {} on track {}{}\n", edit->slot, clockTime(start),
                           clockTime(length), a->track, undoHint(edit->opId));
  });

  CLI::App* move = cue->add_subcommand("move", "Move a cue or loop (--length resizes a loop)");
  move->add_option("CUE", a->cueId, "Cue id (from orvel cue ls)")->required();
  move->add_option("TIME", a->position, kTimeHelp)->required();
  move->add_option("--length", a->length, "A loop's new length, as a time");
  move->callback([&ctx, a] {
    const double at = parseTime(a->position, "the time");
    const CueRow c = requireCue(ctx, a->cueId);
    double length = 0;
    if (!a->length.empty()) {
      if (c.kind != "loop") throw CliError(kBadUsage, "only a loop has a length");
      length = parseTime(a->length, "the length");
      if (length <= 0) throw CliError(kBadUsage, "a loop needs a length above zero");
    }
    const auto opId = a->length.empty() ? ctx.db().cues().moveCue(c.id, at)
                                        : ctx.db().cues().setLoopBounds(c.id, at, length);
    if (!opId) failed("moving the cue", opId.status());
    ctx.out << fmt::format("Moved {} {} to {}{}\n", c.kind, c.index, clockTime(at),
                           undoHint(*opId));
  });

  CLI::App* rm = cue->add_subcommand("rm", "Delete cues or loops");
  rm->add_option("CUE", a->cueIds, "Cue ids (from orvel cue ls)")->required();
  rm->callback([&ctx, a] {
    std::vector<int64_t> ids;
    for (int64_t id : a->cueIds)
      if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
    for (int64_t id : ids) requireCue(ctx, id);  // all known, or nothing is deleted
    for (int64_t id : ids) {
      const auto opId = ctx.db().cues().deleteCue(id);
      if (!opId) failed("deleting cue " + std::to_string(id), opId.status());
      ctx.out << fmt::format("Deleted cue {}{}\n", id, undoHint(*opId));
    }
  });
}

}  // namespace orvel::cli
