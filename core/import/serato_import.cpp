#include "core/import/serato_import.h"

#include <fmt/format.h>

#include <cstdlib>
#include <vector>

#include "core/formats/serato_library.h"
#include "core/formats/serato_tags.h"
#include "core/store/log.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;

// Tag writes are committed in batches: one transaction per file would cost a
// sync each, one for all would lose everything to an interruption.
constexpr size_t kTagBatch = 200;

}  // namespace

fs::path defaultSeratoDir() {
  const char* home = std::getenv("HOME");
  return fs::path(home ? home : "") / "Music" / "_Serato_";
}

std::string describe(const SeratoRefreshCounts& c) {
  std::vector<std::string> parts;
  auto add = [&](int64_t n, std::string_view one, std::string_view many) {
    if (n > 0) parts.push_back(fmt::format("{} {}", n, n == 1 ? one : many));
  };
  add(c.tracksAdded, "track added", "tracks added");
  add(c.tracksFilled, "track filled in", "tracks filled in");
  add(c.cratesAdded, "crate", "crates");
  add(c.addedLinks, "crate link", "crate links");
  add(c.ghosts, "placeholder for a missing file", "placeholders for missing files");
  add(c.smartUpdated, "smart crate updated", "smart crates updated");
  if (c.tagsStored > 0)
    parts.push_back(
        fmt::format("cues and grids from {} file{}", c.tagsStored, c.tagsStored == 1 ? "" : "s"));
  std::string text;
  for (size_t i = 0; i < parts.size(); ++i) text += (i == 0 ? "" : ", ") + parts[i];
  return text;
}

SeratoImportResult readFromSerato(OrvelDB& db, const fs::path& seratoDir,
                                  const SeratoImportOptions& options) {
  SeratoImportResult result;
  std::error_code ec;
  if (!fs::is_directory(seratoDir, ec)) {
    result.outcome = SeratoImportResult::Outcome::noLibrary;
    result.message = kNoSeratoLibrary;
    return result;
  }
  SeratoLibrary library;
  try {
    library = SeratoLibrary::load(seratoDir);
  } catch (const SeratoReadError& e) {
    result.message = std::string(kCouldNotReadSerato) + e.what();
    note(fmt::format("serato: {}", result.message));
    return result;
  }
  const auto folded = db.foldSeratoTracks(library);
  if (!folded) {
    result.message = std::string(kCouldNotReadSerato) + db.lastError();
    note(fmt::format("serato: {}", result.message));
    return result;
  }
  result.counts = *folded;

  // The tracks whose files are here, each once.
  std::vector<std::pair<int64_t, const std::string*>> files;
  files.reserve(library.tracks.size());
  for (const SeratoTrack& t : library.tracks) {
    if (!fs::is_regular_file(t.path, ec)) continue;
    if (const auto id = db.trackId(t.path)) files.emplace_back(*id, &t.path);
  }
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end(),
                          [](const auto& a, const auto& b) { return a.first == b.first; }),
              files.end());

  std::optional<Transaction> batch;
  for (size_t i = 0; i < files.size(); ++i) {
    if (options.cancel && options.cancel->load()) {
      result.cancelled = true;
      break;
    }
    if (options.onProgress) options.onProgress(i, files.size());
    if (!batch) batch.emplace(db.connection());
    const SeratoFileTags tags = SeratoFileTags::read(*files[i].second);
    ++result.filesRead;
    if (db.storeFileTags(files[i].first, tags) == TagsStored::changed) ++result.counts.tagsStored;
    if ((i + 1) % kTagBatch == 0) {
      batch->commit();
      batch.reset();
    }
  }
  if (batch) batch->commit();
  if (options.onProgress) options.onProgress(result.filesRead, files.size());

  const bool added = result.counts.anythingAdded();
  result.outcome =
      added ? SeratoImportResult::Outcome::updated : SeratoImportResult::Outcome::upToDate;
  result.message =
      added ? "Read from Serato: " + describe(result.counts) : std::string(kSeratoUpToDate);
  note(fmt::format("serato: {} tracks, {} crates in {}; {}", library.tracks.size(),
                   library.crates.size(), seratoDir.string(), result.message));
  return result;
}

}  // namespace orvel
