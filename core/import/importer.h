// Bringing audio files into the catalogue: dropped files and folders, or
// files that appeared in the watched media root. Stateless: `expand` finds
// the audio files, `ingest` reads each one's tags, copies it into the media
// root under artist / album when asked, and adds it through the store, which
// reuses or reinstates a row with the same path key.
//
// Nothing is lost on a crash: rows are committed in small batches, and a
// track is reported added (through the result and the progress callback)
// only once its batch is committed. A copy is written under a temporary name
// and renamed into place, so no half-copied file ever carries a real name.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/import/tag_reader.h"
#include "core/store/status.h"
#include "core/store/track_store.h"

namespace orvel {
class OrvelDB;
}

namespace orvel::Importer {

// Lower-case extensions that are imported; nothing else is, whatever its content.
inline constexpr std::string_view audioExts[] = {"mp3",  "m4a", "aac", "flac", "wav",
                                                 "aiff", "aif", "ogg", "aifc", "alac"};
bool isAudioFile(std::string_view file);
// An audio file that is not ours to import: macOS's "._" companions (an
// audio extension, no audio) and a copy into the media root still being
// written (".orvel-copy-…").
bool isSkipped(std::string_view file);
// The hidden prefix of a copy into the media root until it is complete.
inline constexpr std::string_view kCopyPrefix = ".orvel-copy-";

struct Failure {
  std::string path;
  std::string reason;
};

// The audio files among `urls`: folders are walked at any depth (symlinked
// folders are not followed), plain files kept when their extension is
// accepted, anything else skipped. Paths come back absolute, each once,
// folders' contents in name order.
struct Expanded {
  std::vector<std::filesystem::path> files;
  // A folder that could not be read, and a given file or folder that held
  // no audio file at all, with why.
  std::vector<Failure> problems;
};
Expanded expandReporting(std::span<const std::filesystem::path> urls);
std::vector<std::filesystem::path> expand(std::span<const std::filesystem::path> urls);

struct Result {
  std::vector<int64_t> added;  // track ids, new or reinstated
  int64_t dupes = 0;           // already in the library (a live row with the path key)
  int64_t failed = 0;
  std::vector<Failure> failures;
  int64_t notReached = 0;  // files not imported when the import was cancelled or stopped
  // Why the import stopped early: the catalogue could not be written at all
  // (locked, read-only, disk full, damaged). Ok when it did not.
  Status stopped;
};

struct Progress {
  size_t done = 0, total = 0;  // files handled so far, of all
  const Result* result = nullptr;
  std::string_view current;  // the file being read
};

struct Options {
  std::optional<std::filesystem::path> mediaRoot{};
  bool copyFiles = false;
  // Called on the importing thread: before each file and after each batch.
  std::function<void(const Progress&)> onProgress{};
  // Checked between files; set it to stop after the current one.
  const std::atomic<bool>* cancel = nullptr;
  // Why a file with an audio extension holds no audio that can be played
  // (a text or a database renamed .mp3), or none when it does. Asked only of
  // files in which TagLib found no audio (no length or sample rate). Unset,
  // every file that the file system accepts is taken.
  std::function<std::optional<std::string>(const std::filesystem::path&)> whyNotAudio{};
};

Result ingest(std::span<const std::filesystem::path> urls, OrvelDB& db, const Options& options);

// A file's row as the importer makes it (tags, fallbacks, size, dates),
// without writing it; none, with why, for a file that cannot be read.
std::optional<NewTrack> trackFromFile(const std::filesystem::path& file, std::string& why);

// An artist or album folder name: the tag or the fallback, "/" and ":" made
// "-", trimmed. Names a file system would take specially ("", ".", "..")
// become the fallback; very long names are cut on a character boundary.
std::string folderName(const std::optional<std::string>& tag, std::string_view fallback);

// Whether `path` lies inside `root` (whole path components, not a text prefix).
bool isInside(const std::filesystem::path& path, const std::filesystem::path& root);

// Where a copy of `source` goes in `folder`: its own name, or "name N.ext"
// for the first N from 1 whose file is absent or holds the same bytes (an
// earlier copy, reused). A file of the same name and size with other bytes
// is another song and never reused. None past 9999.
struct Destination {
  std::filesystem::path path;
  bool exists = false;  // an earlier copy to reuse
};
std::optional<Destination> copyDestination(const std::filesystem::path& source,
                                           const std::filesystem::path& folder);

}  // namespace orvel::Importer
