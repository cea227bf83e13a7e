// Moving what a DJ kept in Apple Music into the catalogue: ratings, loved
// marks and play counts, dislikes, then playlists and their folders. Each
// step is a Python script reading the library XML Music exports (Music has no
// other way in that works without the user's permission prompts); each step
// commits on its own, so a failed step leaves the earlier ones in place and
// running the whole migration again is always safe.
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

namespace orvel::app {

class MusicMigration {
 public:
  struct Step {
    std::string_view script;
    std::string_view label;  // for the user, also shown as progress
  };
  static const std::vector<Step>& steps();

  // What the catalogue holds of what Music can bring.
  struct Counts {
    int rated = 0, loved = 0, disliked = 0, played = 0, playlists = 0;
  };
  static Counts counts(const std::filesystem::path& database);

  struct Summary {
    Counts gained{};                         // after minus before, never below 0
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
    // Set when nothing could start (no library file, no Python): why, for the user.
    std::optional<std::string> error{};
    Summary summary{};
    // Why each failed step failed, for the log and the command line.
    std::vector<std::string> problems{};
    bool cancelled = false;
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
