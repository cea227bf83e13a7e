#include "app/music_migration.h"

#include <fmt/format.h>

#include <QProcess>
#include <QString>
#include <QStringList>
#include <algorithm>
#include <system_error>

#include "app/app_paths.h"
#include "app/klog.h"
#include "core/store/connection.h"
#include "core/store/locations.h"

namespace orvel::app {
namespace fs = std::filesystem;

namespace {

// "a", "a and b", "a, b and c".
std::string joined(const std::vector<std::string>& parts) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out += i + 1 == parts.size() ? " and " : ", ";
    out += parts[i];
  }
  return out;
}

std::vector<std::string> lines(QByteArray& pending, bool flush) {
  std::vector<std::string> out;
  qsizetype end;
  while ((end = pending.indexOf('\n')) >= 0) {
    out.push_back(pending.left(end).trimmed().toStdString());
    pending.remove(0, end + 1);
  }
  if (flush && !pending.trimmed().isEmpty()) {
    out.push_back(pending.trimmed().toStdString());
    pending.clear();
  }
  std::erase(out, std::string());
  return out;
}

}  // namespace

const std::vector<MusicMigration::Step>& MusicMigration::steps() {
  static const std::vector<Step> table = {
      {"import_music_ratings.py", "Ratings, loved and play counts"},
      {"import_music_dislikes.py", "Disliked tracks"},
      {"import_music_playlists.py", "Playlists"},
  };
  return table;
}

MusicMigration::Counts MusicMigration::counts(const fs::path& database) {
  Counts c;
  try {
    Connection conn(database.string());
    auto count = [&conn](std::string_view sql) {
      return static_cast<int>(conn.scalarInt(sql).value_or(0));
    };
    c.rated = count("SELECT COUNT(*) FROM tracks WHERE rating > 0");
    c.loved = count("SELECT COUNT(*) FROM tracks WHERE loved = 1");
    c.disliked = count("SELECT COUNT(*) FROM tracks WHERE disliked = 1");
    c.played = count("SELECT COUNT(*) FROM tracks WHERE play_count > 0");
    c.playlists = count(
        "SELECT COUNT(*) FROM playlists p JOIN sources s ON s.id = p.source_id "
        "WHERE s.name = 'music'");
  } catch (const std::exception& e) {
    klog(fmt::format("music migration: cannot count in {}: {}", database.string(), e.what()));
  }
  return c;
}

std::string MusicMigration::Summary::sentence() const {
  std::vector<std::string> gains;
  auto add = [&gains](int n, const char* what) {
    if (n > 0) gains.push_back(std::to_string(n) + what);
  };
  add(gained.rated, " rated");
  add(gained.loved, " loved");
  add(gained.disliked, " disliked");
  add(gained.played, " play counts");
  add(gained.playlists, " playlists");

  std::string out;
  if (!gains.empty())
    out = "Brought in " + joined(gains) + ".";
  else if (failedSteps.empty())
    out = "Nothing new to bring in — your library already has all of it.";
  if (!failedSteps.empty()) {
    if (!out.empty()) out += " ";
    out += joined(failedSteps) + " did not come across — see the log.";
  }
  return out;
}

fs::path MusicMigration::defaultXml() {
  const fs::path music = locations::home() / "Music";
  const fs::path current = music / "Music" / "Library.xml";
  const fs::path itunes = music / "iTunes" / "iTunes Music Library.xml";
  std::error_code ec;
  if (!fs::exists(current, ec) && fs::exists(itunes, ec)) return itunes;
  return current;
}

MusicMigration::Result MusicMigration::run(const Options& options) {
  cancelled_ = false;
  Result result;
  const fs::path xml = options.xml.empty() ? defaultXml() : options.xml;
  auto progress = [&options](const std::string& line) {
    if (options.onProgress) options.onProgress(line);
  };

  std::error_code ec;
  if (!fs::is_regular_file(xml, ec)) {
    result.error = fmt::format(
        "No Music library file at {}. In Music choose File ▸ Library ▸ Export Library…, then "
        "try again.",
        xml.string());
    klog("music migration: " + *result.error);
    return result;
  }
  if (!AppPaths::pythonWorks()) {
    result.error =
        "This needs python3, which this Mac does not have yet. Open Terminal and run  "
        "xcode-select --install  then come back — Help ▸ Setup Guide reopens this.";
    klog("music migration: no python3");
    return result;
  }

  const Counts before = counts(options.database);
  progress("Reading your Music library…");
  for (const Step& step : steps()) {
    if (cancelled_) break;
    progress(std::string(step.label));
    const std::string label(step.label);
    auto fail = [&result, &label](const std::string& why) {
      klog("music migration: " + why);
      result.problems.push_back(why);
      result.summary.failedSteps.push_back(label);
    };
    const auto script = AppPaths::script(step.script);
    if (!script) {
      fail(fmt::format("{} is missing", step.script));
      continue;
    }
    QStringList arguments;
    for (const std::string& a : AppPaths::pythonArgs(
             {script->string(), "--db", options.database.string(), "--xml", xml.string()}))
      arguments << QString::fromStdString(a);
    QProcess process;
    process.start(QString::fromStdString(AppPaths::python().string()), arguments);
    if (!process.waitForStarted()) {
      fail(fmt::format("migration helper {} did not start: {}", step.script,
                       process.errorString().toStdString()));
      continue;
    }
    process.closeWriteChannel();
    QByteArray pending;
    // Short waits so a cancel from another thread ends the script promptly.
    while (process.state() != QProcess::NotRunning) {
      if (cancelled_) {
        process.kill();
        process.waitForFinished(-1);
        break;
      }
      process.waitForReadyRead(100);
      pending += process.readAllStandardOutput();
      for (const std::string& line : lines(pending, false)) progress(line);
    }
    pending += process.readAllStandardOutput();
    for (const std::string& line : lines(pending, true)) progress(line);
    if (cancelled_) break;

    const std::string err = process.readAllStandardError().trimmed().toStdString();
    // After a crash Qt reports the signal as the exit code.
    if (process.exitStatus() != QProcess::NormalExit) {
      fail(fmt::format("migration helper {} killed by signal {}", step.script, process.exitCode()));
    } else if (process.exitCode() != 0) {
      klog(fmt::format("music migration: {}: {}", step.script, err));
      fail(fmt::format("migration helper {} exited {}", step.script, process.exitCode()));
    }
  }
  result.cancelled = cancelled_;

  const Counts after = counts(options.database);
  auto gain = [](int a, int b) { return std::max(0, b - a); };
  result.summary.gained = {gain(before.rated, after.rated), gain(before.loved, after.loved),
                           gain(before.disliked, after.disliked), gain(before.played, after.played),
                           gain(before.playlists, after.playlists)};
  klog("music migration: " + result.summary.sentence() + (result.cancelled ? " (cancelled)" : ""));
  return result;
}

}  // namespace orvel::app
