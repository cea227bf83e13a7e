// The subcommands of `orvel`, registered by area.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <vector>

#include "tools/cli/context.h"

namespace orvel::cli {

void addInfoCommand(CLI::App& app, Context& ctx);
void addListCommands(CLI::App& app, Context& ctx);         // ls, show
void addEditCommands(CLI::App& app, Context& ctx);         // set, rate, love, dislike, rm
void addHistoryCommands(CLI::App& app, Context& ctx);      // history, undo, redo
void addMaintenanceCommands(CLI::App& app, Context& ctx);  // backup, relink, snapshot(s)
void addPlaylistCommands(CLI::App& app, Context& ctx);     // playlist …
void addCueCommands(CLI::App& app, Context& ctx);          // cue …
void addSmartCommands(CLI::App& app, Context& ctx);        // smart …
void addImportCommands(CLI::App& app, Context& ctx);       // import, watch
void addConfigCommands(CLI::App& app, Context& ctx);       // config
void addSeratoCommands(CLI::App& app, Context& ctx);       // serato …, export xml
void addMusicCommands(CLI::App& app, Context& ctx);        // music migrate
void addAnalysisCommands(CLI::App& app, Context& ctx);     // analyze, waveform, scan, repair, key
void addAskCommands(CLI::App& app, Context& ctx);          // ask

// Makes the QCoreApplication that Qt's network and keychain classes need,
// once per process, unless there is one already.
void ensureQtApplication();

// Fails (changing nothing) unless every id is a live track.
void requireLiveTracks(Context& ctx, std::span<const int64_t> ids);
// "1 track" / "3 tracks".
std::string countOf(size_t n, const std::string& noun);
// " (undo with: orvel undo OPID)".
std::string undoHint(const std::string& opId);
// A store failure in words (orvel::describe), naming the cause where it is
// the catalogue's or the disk's (locked, read-only, full, damaged).
using orvel::describe;
// Fails with the store's reason: "WHAT failed: WHY; nothing was changed".
[[noreturn]] void failed(const std::string& what, const Status& why);
// "2026-11-21 13:05:00" in local time.
std::string localTime(int64_t unixSeconds);
// "1:30.500" for 90500 ms.
std::string clockTime(double ms);

// A playlist by id, by its full path ("Sets / 2026 / Warm-up") or by names
// separated by '/' ("Sets/2026/Warm-up"); fails when there is none.
int64_t resolvePlaylist(OrvelDB& db, const std::string& idOrPath);
// The live tracks among `ids`, in that order.
std::vector<TrackRow> tracksInOrder(OrvelDB& db, std::span<const int64_t> ids);
void printTrackTable(std::ostream& out, const std::vector<TrackRow>& rows);
// JSON text for stdout. A Linux file name may be any bytes; bytes that are
// not UTF-8 come out as U+FFFD instead of failing the whole listing.
std::string jsonText(const nlohmann::json& j, int indent = -1);
// One JSON array, a track per line.
void printTrackJson(std::ostream& out, const std::vector<TrackRow>& rows);

}  // namespace orvel::cli
