#include "app/music_migration.h"

#include <fmt/format.h>

#include <QProcess>
#include <QString>
#include <QStringList>
#include <memory>
#include <system_error>

#include "app/app_paths.h"
#include "app/klog.h"
#include "core/store/locations.h"
#include "core/store/orvel_db.h"
#include "core/text/split.h"

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

MusicMigration::Counts MusicMigration::changes(const Connection& conn, const std::string& opId) {
  Counts c;
  Statement st = conn.prepare(
      "SELECT entity, field, COUNT(*) FROM history WHERE op_id = ? AND (entity = 'tracks' OR "
      "(entity = 'playlists' AND field = '@row' AND old_value IS NULL)) GROUP BY entity, field");
  st.bind(1, opId);
  while (st.step()) {
    const std::string entity = st.text(0), field = st.text(1);
    const int n = static_cast<int>(st.int64(2));
    if (entity == "playlists") c.playlists = n;
    if (entity != "tracks") continue;
    if (field == "rating") c.rated = n;
    if (field == "loved") c.loved = n;
    if (field == "disliked") c.disliked = n;
    if (field == "play_count") c.played = n;
  }
  // Lists that existed before: any other entry for them is a change.
  Statement updated = conn.prepare(
      "SELECT COUNT(DISTINCT entity_id) FROM history WHERE op_id = ?1 AND entity = 'playlists' "
      "AND entity_id NOT IN (SELECT entity_id FROM history WHERE op_id = ?1 AND "
      "entity = 'playlists' AND field = '@row' AND old_value IS NULL)");
  updated.bind(1, opId);
  if (updated.step()) c.playlistsUpdated = static_cast<int>(updated.int64(0));
  return c;
}

std::string MusicMigration::Summary::sentence() const {
  std::vector<std::string> gains;
  auto add = [&gains](int n, const char* what) {
    if (n > 0) gains.push_back(std::to_string(n) + what);
  };
  add(changed.rated, " rated");
  add(changed.loved, " loved");
  add(changed.disliked, " disliked");
  add(changed.played, " play counts");
  add(changed.playlists, " playlists");

  std::string out;
  if (!gains.empty()) out = "Brought in " + joined(gains) + ".";
  if (changed.playlistsUpdated > 0)
    out += (out.empty() ? "" : " ") +
           fmt::format("Updated {} playlists to match Music.", changed.playlistsUpdated);
  if (out.empty() && failedSteps.empty())
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

  // The catalogue is opened here, on the thread that runs the migration, and
  // only to take the snapshot, name the operation and read back what changed:
  // the scripts write through their own connections.
  std::unique_ptr<OrvelDB> db;
  try {
    db = std::make_unique<OrvelDB>(options.database.string());
  } catch (const std::exception& e) {
    result.error =
        fmt::format("Cannot open the catalogue {}: {}", options.database.string(), e.what());
    klog("music migration: " + *result.error);
    return result;
  }
  const auto snapshot = db->snapshots().take(kSnapshotReason, 0);
  if (!snapshot) {
    result.error = fmt::format(
        "Could not save a snapshot of the catalogue before the migration ({}), so nothing was "
        "changed. Free some disk space or check the folder {}, then try again.",
        db->snapshots().lastError(), db->snapshots().dir().string());
    klog("music migration: " + *result.error);
    return result;
  }
  result.snapshot = *snapshot;
  result.opId = db->journal().begin(kOpName);
  klog(fmt::format("music migration: snapshot {}, operation {}", snapshot->string(), result.opId));

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
             {script->string(), "--db", options.database.string(), "--xml", xml.string(), "--op-id",
              result.opId, "--op-name", std::string(kOpName)}))
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

    const std::string err = process.readAllStandardError().toStdString();
    // The script's own words: its one line, or the last line of a traceback.
    const std::string why(lastLine(err));
    const std::string because = why.empty() ? "" : ": " + why;
    // After a crash Qt reports the signal as the exit code.
    if (process.exitStatus() != QProcess::NormalExit) {
      fail(fmt::format("migration helper {} killed by signal {}{}", step.script, process.exitCode(),
                       because));
    } else if (process.exitCode() != 0) {
      if (!err.empty()) klog(fmt::format("music migration: {}: {}", step.script, err));
      fail(
          fmt::format("migration helper {} exited {}{}", step.script, process.exitCode(), because));
    }
  }
  result.cancelled = cancelled_;

  result.summary.changed = changes(db->connection(), result.opId);
  result.entries = static_cast<int>(db->journal().entries(result.opId).size());
  klog("music migration: " + result.summary.sentence() + (result.cancelled ? " (cancelled)" : ""));
  return result;
}

}  // namespace orvel::app
