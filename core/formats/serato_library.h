// Serato's library folder "_Serato_": the track database "database V2", one
// ".crate" file per crate in "Subcrates" and one ".scrate" per smart crate in
// "SmartCrates", read into plain values. Serato's files are only ever read.
//
// Paths in these files are relative to the root of the drive the folder is
// on: "_Serato_" in the home Music folder names "Users/…", one at the top of
// an external drive names "Music/…" on that drive. load() finds that root.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/formats/serato_tlv.h"

namespace orvel {

struct SeratoTrack {
  std::string path;  // absolute
  std::optional<std::string> title, artist, album, genre, comment, grouping, label, year, bpm, key,
      durationText, bitrateText, sampleRateText, sizeText, fileType;
  std::optional<uint32_t> dateAddedUnix;
};

struct SeratoSmartRule {
  std::string conditionRaw;  // Serato's key, e.g. "cond_greq_uint"
  uint32_t fieldId = 0;
  std::optional<std::string> textValue;  // "trpt"
  std::optional<uint32_t> uintValue;     // "urpt"
  std::optional<std::string> dateText;   // "trtt": the date a time condition compares with

  // What a condition key tests and on what kind of value: "cond_dnc_str" is
  // (doesNotContain, text). Serato has spelt the same test more than one way
  // over the years; every spelling seen maps to one test here.
  enum class Test {
    unknown,
    is,
    isNot,
    contains,
    doesNotContain,
    beginsWith,
    endsWith,
    greaterThan,
    lessThan,
    atLeast,
    atMost,
    after,
    before,
    inLast,
    notInLast
  };
  enum class ValueKind { unknown, text, number, time };
  Test test() const;
  ValueKind valueKind() const;

  static const std::map<uint32_t, std::string>& knownFields();
  std::string fieldName() const;       // "BPM", or "field 99"
  std::string conditionName() const;   // "is at least", or the key as it stands
  std::string describedValue() const;  // “House”, the date, or the number
  std::string summary() const;         // BPM is at least 124
};

struct SeratoCrate {
  std::vector<std::string> nameChain;  // from the top level down
  // Absolute; for a smart crate, the members Serato last gave it.
  std::vector<std::string> trackPaths;
  bool isSmart = false;
  std::vector<SeratoSmartRule> rules;
  // Serato creates smart crates with both options on; a file that does not
  // say otherwise keeps them.
  bool matchAll = true;
  bool live = true;
};

// "database V2" could not be read; what() is the file system's reason.
struct SeratoReadError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct SeratoLibrary {
  std::string version;
  std::vector<SeratoTrack> tracks;
  std::vector<SeratoCrate> crates;  // ordinary then smart, each by file name
  int64_t skippedTrackChunks = 0;
  // False when the folder holds crates but no "database V2": the tracks are
  // then only those the crates name.
  bool hasDatabase = true;
  // The drive root the stored paths are relative to ("/" for the system drive).
  std::string volumeRoot = "/";

  static constexpr const char* kDatabaseFile = "database V2";
  static constexpr const char* kCratesFolder = "Subcrates";
  static constexpr const char* kSmartCratesFolder = "SmartCrates";

  // Reads a "_Serato_" folder. Throws SeratoReadError when "database V2"
  // cannot be read or is not a Serato database, and when there is neither
  // it nor a crate folder; missing or unreadable crate folders give no crates.
  static SeratoLibrary load(const std::filesystem::path& seratoDir);

  // The parts of load, on bytes already read. fromDatabase throws
  // SeratoReadError for bytes that hold no Serato database.
  static SeratoLibrary fromDatabase(std::span<const uint8_t> database);
  static std::optional<SeratoTrack> track(std::span<const SeratoField> fields);
  // "Deep%%House%%Vocal.crate" holds the crate Vocal inside House inside Deep.
  static std::vector<std::string> nameChain(const std::string& fileName);
  static std::vector<std::string> crateTrackPaths(std::span<const uint8_t> crateFile);
  static void applyRules(std::span<const uint8_t> smartCrateFile, SeratoCrate& crate);
  // The drive root the paths of a library in `seratoDir` are relative to:
  // the folder above it when that is where a drive is mounted, else the one
  // of "/" and that folder under which more of the named files exist.
  static std::filesystem::path volumeRootFor(const std::filesystem::path& seratoDir,
                                             const SeratoLibrary& library);
};

}  // namespace orvel
