// How an import is reported, in the same words wherever it ran from: the
// status line, the toast, and the log line. The command line prints them; the
// window shows them.
#pragma once

#include <string>
#include <string_view>

#include "core/import/importer.h"
#include "core/text/toast.h"

namespace orvel::Importer {

// "Added 12" or "Added 12 · 3 already here".
std::string statusText(const Result& result);

using Toast = orvel::Toast;
// {"folder.badge.plus", "Added 1 track"} or "Added 12 tracks · 3 already here".
Toast toast(const Result& result);

// "import in place: 12 in, 3 dupes, 0 failed <- NOTE".
std::string logLine(const Result& result, std::string_view note);

}  // namespace orvel::Importer

namespace orvel::Importer {

// `ingest`, then the log line with the caller's note (who asked: a drop, the
// command line, the watcher).
Result importInPlace(std::span<const std::filesystem::path> urls, OrvelDB& db,
                     const Options& options, std::string_view note);

}  // namespace orvel::Importer
