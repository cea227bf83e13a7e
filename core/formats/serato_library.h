// Serato's library folder "_Serato_": the track database "database V2", one
// ".crate" file per crate in "Subcrates" and one ".scrate" per smart crate in
// "SmartCrates", read into plain values. Serato's files are only ever read.
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
  std::optional<std::string> textValue;
  std::optional<uint32_t> uintValue;

  static const std::map<uint32_t, std::string>& knownFields();
  std::string fieldName() const;       // "BPM", or "field 99"
  std::string conditionName() const;   // "is at least", or the key as it stands
  std::string describedValue() const;  // “House”, or the number
  std::string summary() const;         // BPM is at least 124
};

struct SeratoCrate {
  std::vector<std::string> nameChain;  // from the top level down
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

  static constexpr const char* kDatabaseFile = "database V2";
  static constexpr const char* kCratesFolder = "Subcrates";
  static constexpr const char* kSmartCratesFolder = "SmartCrates";

  // Reads a "_Serato_" folder. Throws SeratoReadError only when "database V2"
  // cannot be read; missing or unreadable crate folders give no crates.
  static SeratoLibrary load(const std::filesystem::path& seratoDir);

  // The parts of load, on bytes already read.
  static SeratoLibrary fromDatabase(std::span<const uint8_t> database);
  static std::optional<SeratoTrack> track(std::span<const SeratoField> fields);
  // "Deep%%House%%Vocal.crate" holds the crate Vocal inside House inside Deep.
  static std::vector<std::string> nameChain(const std::string& fileName);
  static std::vector<std::string> crateTrackPaths(std::span<const uint8_t> crateFile);
  static void applyRules(std::span<const uint8_t> smartCrateFile, SeratoCrate& crate);
};

}  // namespace orvel
