// Moving what a DJ kept in Apple Music into the catalogue: ratings, loved
// marks and play counts, dislikes, then playlists and their folders. Each
// step is a Python script reading the library XML Music exports (Music has no
// other way in that works without the user's permission prompts); each step
// commits on its own, so a failed step leaves the earlier ones in place and
// running the whole migration again is always safe.
//
// What the user set in Orvel wins: Music only fills an empty rating or an
// unset loved or disliked mark, and a play count only grows. The whole run is
// one operation of the edit history (every step records its changes under
// the same op id), taken after a snapshot of the catalogue, so one undo puts
// back every value it changed.
//
// run() blocks until every step has finished: the command line calls it
// directly, the window calls it on a worker thread and may cancel() from the
// interface thread.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvel {
class Connection;
}

namespace orvel::app {

class MusicMigration {
 public:
  struct Step {
    std::string_view script;
    std::string_view label;  // for the user, also shown as progress
  };
  static const std::vector<Step>& steps();

  static constexpr std::string_view kOpName = "Apple Music Migration";
  static constexpr std::string_view kSnapshotReason = "before Apple Music migration";

  // Values a run changed, read back from the history it wrote: ratings,
  // loved and disliked marks filled, play counts raised, playlists created
  // and playlists whose name, place or tracks changed.
  struct Counts {
    int rated = 0, loved = 0, disliked = 0, played = 0, playlists = 0, playlistsUpdated = 0;
  };
  static Counts changes(const Connection& conn, const std::string& opId);

  struct Summary {
    Counts changed{};
    std::vector<std::string> failedSteps{};  // their labels
    // One or two sentences for the user: what came in and what did not.
    std::string sentence() const;
  };

  struct Options {
    std::filesystem::path database{};
    std::filesystem::path xml{};  // empty: defaultXml()
    std::function<void(const std::string&)> onProgress{};
  };

  struct Result {
    // Set when nothing could start (no library file, no Python, no
    // snapshot): why, for the user. Nothing was changed then.
    std::optional<std::string> error{};
    Summary summary{};
    // Why each failed step failed, with the script's own reason.
    std::vector<std::string> problems{};
    bool cancelled = false;
    std::string opId{};                // the history operation of this run
    int entries = 0;                   // history entries it wrote; 0: nothing changed
    std::filesystem::path snapshot{};  // the copy taken before it
    bool ok() const { return !error && summary.failedSteps.empty() && !cancelled; }
  };

  // ~/Music/Music/Library.xml, where Music's File > Library > Export Library
  // suggests; else the iTunes-era ~/Music/iTunes/iTunes Music Library.xml when
  // only that exists.
  static std::filesystem::path defaultXml();

  Result run(const Options& options);
  // Ends the script that runs and skips the rest; safe from any thread.
  void cancel() { cancelled_ = true; }

 private:
  std::atomic<bool> cancelled_{false};
};

}  // namespace orvel::app
