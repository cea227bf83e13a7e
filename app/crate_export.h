// Handing crates to DJ software: a crate written into Serato's library folder
// (through serato_crates.py), and the collection XML that rekordbox-style
// programs import (dj_xml_export.h). Every call blocks until its work is
// done; none throws. Serato's own files are written only by the script, and
// only while Serato is not running.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "app/dj_xml_export.h"

namespace orvel {
class OrvelDB;
}

namespace orvel::app {

class CrateExport {
 public:
  CrateExport() = delete;

  // What a finished program left behind. `started` false: it never ran
  // (missing, not executable) and `err` says why; exitCode is then -1, as it
  // is for a program that crashed.
  struct RunResult {
    int exitCode = -1;
    std::string out, err;
    bool started = false;
  };

  struct SendResult {
    // refused: nothing written, the user decides (rename a crate, or replace
    // a crate file Orvel did not write).
    enum class Outcome { sent, notInstalled, seratoRunning, refused, failed };
    Outcome outcome = Outcome::failed;
    std::string title;    // for the user: a toast's or a dialog's heading
    std::string message;  // for the user: what happened
    std::string output;   // the script's line on success ("Sent "A / B": 12 tracks -> …")
  };

  // Whether a process named exactly "Serato DJ Pro" runs (asks /usr/bin/pgrep);
  // false when pgrep is missing or does not start.
  static bool seratoRunning();

  // Runs `program` with `args` and waits for it to finish.
  static RunResult run(const std::string& program, const std::vector<std::string>& args);
  // Runs `command` through /bin/sh -c.
  static RunResult runShell(const std::string& command);

  // Writes the crate `crateId` of the catalogue at `database` into Serato's
  // library folder `seratoDir` (empty: ~/Music/_Serato_) as its crate file,
  // atomically and with the mode the file had. Refused, with nothing written,
  // when the folder has no "Subcrates" or while Serato runs (it rewrites its
  // crate files as it quits, and would drop ours); also when another crate of
  // the catalogue maps to the same file, and when the file there is not one
  // Orvel wrote, unless `replace` (which keeps the old file as a .bak copy).
  static SendResult sendToSerato(const std::filesystem::path& database, int64_t crateId,
                                 const std::filesystem::path& seratoDir = {}, bool replace = false);

  // exportXML of dj_xml_export.h.
  static XmlExportResult exportXML(const OrvelDB& db, std::span<const int64_t> crateIds,
                                   const std::filesystem::path& file);
};

}  // namespace orvel::app
