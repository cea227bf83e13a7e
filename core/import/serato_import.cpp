#include "core/import/serato_import.h"

#include <fmt/format.h>

#include <unordered_set>
#include <vector>

#include "core/formats/serato_library.h"
#include "core/formats/serato_tags.h"
#include "core/import/importer.h"
#include "core/store/locations.h"
#include "core/store/log.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;

// Tag writes are committed in batches: one transaction per file would cost a
// sync each, one for all would lose everything to an interruption.
constexpr size_t kTagBatch = 200;

}  // namespace

fs::path defaultSeratoDir() {
  return locations::home() / "Music" / "_Serato_";
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
  // Files only a crate names, that are there and new to the catalogue, come
  // in as the importer reads them rather than as bare placeholders.
  std::vector<NewTrack> crateOnly;
  {
    std::unordered_set<std::string> known;
    for (const SeratoTrack& t : library.tracks) known.insert(OrvelDB::normalizePath(t.path));
    for (const SeratoCrate& crate : library.crates)
      for (const std::string& path : crate.trackPaths) {
        if (!known.insert(OrvelDB::normalizePath(path)).second) continue;
        if (!Importer::isAudioFile(path) || !fs::is_regular_file(path, ec)) continue;
        if (db.tracks().trackId(path)) continue;
        std::string why;
        if (auto row = Importer::trackFromFile(path, why)) crateOnly.push_back(std::move(*row));
      }
  }
  const auto folded = db.serato().foldSeratoTracks(library, crateOnly);
  if (!folded) {
    result.message = std::string(kCouldNotReadSerato) + folded.error();
    note(fmt::format("serato: {}", result.message));
    return result;
  }
  result.counts = *folded;

  // The tracks whose files are here, each once.
  std::vector<std::pair<int64_t, const std::string*>> files;
  files.reserve(library.tracks.size());
  for (const SeratoTrack& t : library.tracks) {
    if (!fs::is_regular_file(t.path, ec)) continue;
    if (const auto id = db.tracks().trackId(t.path)) files.emplace_back(*id, &t.path);
  }
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end(),
                          [](const auto& a, const auto& b) { return a.first == b.first; }),
              files.end());

  auto fail = [&](size_t count, const std::string& why) {
    result.filesFailed += static_cast<int64_t>(count);
    if (result.failure.empty()) result.failure = why;
  };
  // A batch's files count as stored only once it is committed.
  std::optional<Transaction> batch;
  size_t batchFiles = 0;
  int64_t batchChanged = 0;
  auto commitBatch = [&] {
    Status s = batch->commit();
    batch.reset();
    if (s)
      result.counts.tagsStored += batchChanged;
    else
      fail(batchFiles, s.message());
    batchFiles = 0;
    batchChanged = 0;
    return s.isOk();
  };
  for (size_t i = 0; i < files.size(); ++i) {
    if (options.cancel && options.cancel->load()) {
      result.cancelled = true;
      break;
    }
    if (options.onProgress) options.onProgress(i, files.size());
    if (!batch) {
      batch.emplace(db.connection());
      if (!*batch) {
        // The catalogue is held or unwritable: the rest would fail the same way.
        fail(files.size() - i, batch->status().message());
        batch.reset();
        break;
      }
    }
    const SeratoFileTags tags = SeratoFileTags::read(*files[i].second);
    ++result.filesRead;
    switch (db.serato().storeFileTags(files[i].first, tags)) {
      case TagsStored::changed:
        ++batchChanged;
        ++batchFiles;
        break;
      case TagsStored::unchanged:
        ++batchFiles;
        break;
      case TagsStored::failed:
        fail(1, "the catalogue did not take the cues of " + *files[i].second);
        break;
    }
    if ((i + 1) % kTagBatch == 0 && !commitBatch()) {
      fail(files.size() - i - 1, result.failure);
      break;
    }
  }
  if (batch) commitBatch();
  if (options.onProgress) options.onProgress(result.filesRead, files.size());
  if (result.filesFailed > 0)
    note(fmt::format("serato: cues and grids of {} files not stored: {}", result.filesFailed,
                     result.failure));

  const bool added = result.counts.anythingAdded();
  if (!added && result.filesFailed > 0) {
    // Not up to date: what Serato has could not be stored.
    result.outcome = SeratoImportResult::Outcome::failed;
    result.message = std::string(kCouldNotStoreSerato) + result.failure;
    return result;
  }
  result.outcome =
      added ? SeratoImportResult::Outcome::updated : SeratoImportResult::Outcome::upToDate;
  result.message =
      added ? "Read from Serato: " + describe(result.counts) : std::string(kSeratoUpToDate);
  if (library.volumeRoot != "/")
    result.message += " (a library on the drive at " + library.volumeRoot + ")";
  if (!library.hasDatabase) result.message += " (no database V2: only the tracks its crates name)";
  note(fmt::format("serato: {} tracks, {} crates in {}; {}", library.tracks.size(),
                   library.crates.size(), seratoDir.string(), result.message));
  return result;
}

}  // namespace orvel
