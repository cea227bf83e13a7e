// "Read from Serato": Serato's library folder folded into the catalogue.
// Its tracks and crates first, in one transaction; then the cues, loops and
// beat grid in the tags of every track file that is there. Serato's files are
// only read. Running it again adds nothing and says so.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "core/store/orvel_db.h"

namespace orvel {

struct SeratoImportResult {
  enum class Outcome { updated, upToDate, noLibrary, failed };
  Outcome outcome = Outcome::failed;
  std::string message;  // the sentence the user sees
  SeratoRefreshCounts counts;
  int64_t filesRead = 0;  // track files whose tags were read
  // Track files whose cues and grid could not be stored, and the first
  // reason; what was stored before (and besides) them stays.
  int64_t filesFailed = 0;
  std::string failure;
  bool cancelled = false;
};

struct SeratoImportOptions {
  // Called between files while the tags are read: files done, of all.
  std::function<void(size_t done, size_t total)> onProgress{};
  // Checked between files; what was stored until then stays.
  const std::atomic<bool>* cancel = nullptr;
};

inline constexpr std::string_view kSeratoUpToDate = "Serato is already up to date";
inline constexpr std::string_view kNoSeratoLibrary = "No Serato library on this Mac";
inline constexpr std::string_view kCouldNotReadSerato = "Could not read Serato: ";
inline constexpr std::string_view kCouldNotStoreSerato = "Could not store Serato's cues: ";

// "_Serato_" in the user's Music folder.
std::filesystem::path defaultSeratoDir();

SeratoImportResult readFromSerato(OrvelDB& db, const std::filesystem::path& seratoDir,
                                  const SeratoImportOptions& options = {});

// "12 tracks added, 3 crates, 40 crate links, cues from 9 files".
std::string describe(const SeratoRefreshCounts& counts);

}  // namespace orvel
