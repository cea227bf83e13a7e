// The subcommands of `orvel`, registered by area.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tools/cli/context.h"

namespace orvel::cli {

void addInfoCommand(CLI::App& app, Context& ctx);
void addListCommands(CLI::App& app, Context& ctx);         // ls, show
void addEditCommands(CLI::App& app, Context& ctx);         // set, rate, love, dislike, rm
void addHistoryCommands(CLI::App& app, Context& ctx);      // history, undo, redo
void addMaintenanceCommands(CLI::App& app, Context& ctx);  // backup, relink

// Fails (changing nothing) unless every id is a live track.
void requireLiveTracks(Context& ctx, std::span<const int64_t> ids);
// "1 track" / "3 tracks".
std::string countOf(size_t n, const std::string& noun);

}  // namespace orvel::cli
