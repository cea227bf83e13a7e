#include "app/settings.h"

#include <QString>
#include <QStringList>
#include <algorithm>

namespace orvel::app {
namespace {

QString toQ(std::string_view s) {
  return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size()));
}

std::string toStd(const QString& text) {
  return text.toStdString();
}

}  // namespace

// Explicit format, scope and names: the default constructor would need a
// QCoreApplication, which the command line does not always make.
Settings::Settings() : store_(QSettings::NativeFormat, QSettings::UserScope, "Orvel", "Orvel") {}

QVariant Settings::value(std::string_view key, const QVariant& fallback) const {
  return store_.value(toQ(key), fallback);
}

void Settings::setValue(std::string_view key, const QVariant& value) {
  store_.setValue(toQ(key), value);
  store_.sync();
}

void Settings::remove(std::string_view key) {
  store_.remove(toQ(key));
  store_.sync();
}

bool Settings::contains(std::string_view key) const {
  return store_.contains(toQ(key));
}

std::vector<std::string> Settings::allKeys() const {
  std::vector<std::string> out;
  for (const QString& k : store_.allKeys()) out.push_back(toStd(k));
  return out;
}

std::string Settings::location() const {
  return toStd(store_.fileName());
}

double Settings::lastLibraryBackup() const {
  bool ok = false;
  const double t = value(keys::kLastLibraryBackup).toDouble(&ok);
  return ok ? t : 0.0;
}

void Settings::setLastLibraryBackup(double secondsSinceEpoch) {
  setValue(keys::kLastLibraryBackup, secondsSinceEpoch);
}

std::vector<std::string> Settings::libSections() const {
  std::vector<std::string> out;
  for (const QString& name : value(keys::kLibSections).toStringList()) {
    if (!name.isEmpty()) out.push_back(toStd(name));
  }
  return out;
}

void Settings::setLibSections(const std::vector<std::string>& sections) {
  QStringList list;
  for (const auto& name : sections) list << toQ(name);
  setValue(keys::kLibSections, list);
}

bool Settings::enableSectionOnce(std::string_view name) {
  const std::string flag = std::string(keys::kLibSectionAddedPrefix) + std::string(name);
  if (value(flag).toBool()) return false;
  auto sections = libSections();
  if (std::find(sections.begin(), sections.end(), name) == sections.end()) {
    sections.emplace_back(name);
    setLibSections(sections);
  }
  setValue(flag, true);
  return true;
}

void Settings::enableDefaultSections() {
  enableSectionOnce("disliked");
  enableSectionOnce("loved");
}

int Settings::playHistoryLimit() const {
  bool ok = false;
  const int limit = value(keys::kPlayHistoryLimit).toInt(&ok);
  return ok && limit > 0 ? limit : kDefaultPlayHistoryLimit;
}

void Settings::setPlayHistoryLimit(int limit) {
  setValue(keys::kPlayHistoryLimit, limit);
}

double Settings::softMuteLevel() const {
  bool ok = false;
  const double level = value(keys::kSoftMuteLevel).toDouble(&ok);
  return ok ? level : kDefaultSoftMuteLevel;
}

void Settings::setSoftMuteLevel(double percent) {
  setValue(keys::kSoftMuteLevel, percent);
}

bool Settings::autoEQSaveToTrack() const {
  return value(keys::kAutoEQSaveToTrack, false).toBool();
}

void Settings::setAutoEQSaveToTrack(bool on) {
  setValue(keys::kAutoEQSaveToTrack, on);
}

std::string Settings::keyNotation() const {
  std::string stored = toStd(value(keys::kKeyNotation).toString());
  for (std::string_view known : kKeyNotations) {
    if (stored == known) return stored;
  }
  return std::string(kKeyNotations[0]);
}

void Settings::setKeyNotation(std::string_view notation) {
  setValue(keys::kKeyNotation, toQ(notation));
}

double Settings::bpmCeiling() const {
  bool ok = false;
  const double bpm = value(keys::kBpmCeiling).toDouble(&ok);
  return ok ? bpm : 0.0;
}

void Settings::setBpmCeiling(double bpm) {
  setValue(keys::kBpmCeiling, bpm);
}

bool Settings::watchMusicFolder() const {
  return value(keys::kWatchMusicFolder, false).toBool();
}

void Settings::setWatchMusicFolder(bool on) {
  setValue(keys::kWatchMusicFolder, on);
}

std::optional<std::filesystem::path> Settings::mediaRoot() const {
  const QString root = value(keys::kMediaRoot).toString();
  if (root.isEmpty()) return std::nullopt;
  return std::filesystem::path(root.toStdString());
}

void Settings::setMediaRoot(const std::optional<std::filesystem::path>& root) {
  if (!root || root->empty()) {
    remove(keys::kMediaRoot);
    return;
  }
  setValue(keys::kMediaRoot, toQ(root->string()));
}

std::string Settings::aiBaseURL() const {
  std::string url = toStd(value(keys::kAiBaseURL).toString().trimmed());
  while (!url.empty() && url.back() == '/') url.pop_back();
  return url.empty() ? std::string(kDefaultAiBaseURL) : url;
}

void Settings::setAiBaseURL(std::string_view url) {
  if (url.empty() || url == kDefaultAiBaseURL) {
    remove(keys::kAiBaseURL);
    return;
  }
  setValue(keys::kAiBaseURL, toQ(url));
}

}  // namespace orvel::app
