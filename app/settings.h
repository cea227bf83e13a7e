// The user's preferences, kept by QSettings under organisation and application
// "Orvel" (the user defaults on macOS, $XDG_CONFIG_HOME/Orvel/Orvel.conf on
// Linux). Works without a QCoreApplication. Every write is flushed at once so a
// short-lived command-line process leaves its change behind. One instance per
// thread; instances in one process see each other's writes.
#pragma once

#include <QSettings>
#include <QVariant>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvel::app {

// The key names, shared with the macOS build's user defaults.
namespace keys {
inline constexpr std::string_view kLastLibraryBackup = "lastLibraryBackup";
inline constexpr std::string_view kLibSections = "libSections";
inline constexpr std::string_view kLibSectionAddedPrefix = "libSectionAdded_";
inline constexpr std::string_view kPlayHistoryLimit = "playHistoryLimit";
inline constexpr std::string_view kSoftMuteLevel = "softMuteLevel";
inline constexpr std::string_view kAutoEQSaveToTrack = "autoEQSaveToTrack";
inline constexpr std::string_view kKeyNotation = "keyNotation";
inline constexpr std::string_view kBpmCeiling = "bpmCeiling";
inline constexpr std::string_view kWatchMusicFolder = "watchMusicFolder";
inline constexpr std::string_view kMediaRoot = "mediaRoot";
inline constexpr std::string_view kAiBaseURL = "aiBaseURL";
}  // namespace keys

class Settings {
 public:
  static constexpr int kDefaultPlayHistoryLimit = 200;
  static constexpr double kDefaultSoftMuteLevel = 10.0;
  // The key notations in menu order; anything else reads as the first.
  static constexpr std::string_view kKeyNotations[] = {"standard", "camelot", "openKey", "both"};

  Settings();
  Settings(const Settings&) = delete;
  Settings& operator=(const Settings&) = delete;

  // ---- generic access -----------------------------------------------------
  QVariant value(std::string_view key, const QVariant& fallback = {}) const;
  void setValue(std::string_view key, const QVariant& value);
  void remove(std::string_view key);
  bool contains(std::string_view key) const;
  std::vector<std::string> allKeys() const;
  // Where the preferences are stored (a file path on Linux, a domain on macOS).
  std::string location() const;

  // ---- typed keys -----------------------------------------------------------
  // Seconds since 1970 of the last automatic library backup; 0 when never.
  double lastLibraryBackup() const;
  void setLastLibraryBackup(double secondsSinceEpoch);

  // The enabled sidebar sections, in the user's order.
  std::vector<std::string> libSections() const;
  void setLibSections(const std::vector<std::string>& sections);
  // Switches a section on the first time only: once its flag is set, a user
  // who hid the section keeps it hidden. Returns whether anything changed.
  bool enableSectionOnce(std::string_view name);
  // The sections every library starts with: "disliked", then "loved".
  void enableDefaultSections();

  // Length of the play log and rows kept in play history; 200 unless > 0.
  int playHistoryLimit() const;
  void setPlayHistoryLimit(int limit);

  // Percent of full volume that soft mute drops to; 10 when unset.
  double softMuteLevel() const;
  void setSoftMuteLevel(double percent);

  bool autoEQSaveToTrack() const;
  void setAutoEQSaveToTrack(bool on);

  // One of kKeyNotations; a missing or unknown stored value reads "standard".
  std::string keyNotation() const;
  void setKeyNotation(std::string_view notation);

  // The user's BPM ceiling as stored; 0 when unset. Analysis decides whether
  // a given value is high enough to count.
  double bpmCeiling() const;
  void setBpmCeiling(double bpm);

  bool watchMusicFolder() const;
  void setWatchMusicFolder(bool on);

  // The folder imports may copy into; none when unset or empty.
  std::optional<std::filesystem::path> mediaRoot() const;
  void setMediaRoot(const std::optional<std::filesystem::path>& root);

  // Where the assistant sends its requests, without a trailing "/"; Anthropic's
  // own address unless changed (a local stand-in, a company proxy).
  static constexpr std::string_view kDefaultAiBaseURL = "https://api.anthropic.com";
  std::string aiBaseURL() const;
  void setAiBaseURL(std::string_view url);

 private:
  QSettings store_;
};

}  // namespace orvel::app
