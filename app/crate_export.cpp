#include "app/crate_export.h"

#include <fmt/format.h>

#include <QProcess>
#include <QString>
#include <QStringList>
#include <system_error>

#include "app/app_paths.h"
#include "app/klog.h"
#include "core/store/locations.h"
#include "core/text/split.h"

namespace orvel::app {
namespace fs = std::filesystem;

namespace {

constexpr const char* kScript = "serato_crates.py";

CrateExport::SendResult failed(const std::string& reason, int64_t crateId) {
  klog(fmt::format("serato send: crate {} failed: {}", crateId, reason));
  return {CrateExport::SendResult::Outcome::failed,
          "Send to Serato failed",
          "Send failed: " + reason,
          {}};
}

}  // namespace

bool CrateExport::seratoRunning() {
  const RunResult r = run("/usr/bin/pgrep", {"-x", "Serato DJ Pro"});
  return r.started && !lastLine(r.out).empty();
}

CrateExport::RunResult CrateExport::run(const std::string& program,
                                        const std::vector<std::string>& args) {
  QStringList arguments;
  for (const std::string& a : args) arguments << QString::fromStdString(a);
  QProcess process;
  process.start(QString::fromStdString(program), arguments);
  RunResult result;
  if (!process.waitForStarted()) {
    result.err = process.errorString().toStdString();
    return result;
  }
  result.started = true;
  // Nothing is fed to the program; one that waits for input must see the end.
  process.closeWriteChannel();
  process.waitForFinished(-1);
  result.out = process.readAllStandardOutput().toStdString();
  result.err = process.readAllStandardError().toStdString();
  if (process.exitStatus() == QProcess::NormalExit) result.exitCode = process.exitCode();
  return result;
}

CrateExport::RunResult CrateExport::runShell(const std::string& command) {
  return run("/bin/sh", {"-c", command});
}

CrateExport::SendResult CrateExport::sendToSerato(const fs::path& database, int64_t crateId,
                                                  const fs::path& seratoDir, bool replace) {
  const fs::path dir = seratoDir.empty() ? locations::home() / "Music" / "_Serato_" : seratoDir;
  std::error_code ec;
  if (!fs::is_directory(dir / "Subcrates", ec)) {
    klog(fmt::format("serato send: crate {} not sent, no crate folder in {}", crateId,
                     dir.string()));
    return {SendResult::Outcome::notInstalled,
            "Serato not found",
            "Serato is not installed on this Mac",
            {}};
  }
  if (seratoRunning()) {
    klog(fmt::format("serato send: crate {} not sent, Serato is running", crateId));
    return {SendResult::Outcome::seratoRunning,
            "Quit Serato first",
            "Serato overwrites its crate files when it quits.",
            {}};
  }
  const auto script = AppPaths::script(kScript);
  if (!script) return failed(fmt::format("{} is missing", kScript), crateId);

  std::vector<std::string> args = {script->string(),        "send",         database.string(),
                                   std::to_string(crateId), "--serato-dir", dir.string()};
  if (replace) args.emplace_back("--replace");
  const RunResult r = run(AppPaths::python().string(), AppPaths::pythonArgs(std::move(args)));
  if (!r.started) return failed("Python did not start: " + r.err, crateId);
  // The script's status for "nothing written, the user has a choice".
  constexpr int kRefused = 3;
  if (r.exitCode == kRefused) {
    const std::string why(lastLine(r.err));
    klog(fmt::format("serato send: crate {} refused: {}", crateId, why));
    return {SendResult::Outcome::refused, "Not sent to Serato", why, {}};
  }
  if (r.exitCode != 0) {
    const std::string why(lastLine(r.err));
    return failed(why.empty() ? fmt::format("{} ended with status {}", kScript, r.exitCode) : why,
                  crateId);
  }
  const std::string line(lastLine(r.out));
  klog(fmt::format("serato send: crate {}: {}", crateId, line));
  return {SendResult::Outcome::sent, "Sent to Serato", line, line};
}

XmlExportResult CrateExport::exportXML(const OrvelDB& db, std::span<const int64_t> crateIds,
                                       const fs::path& file) {
  return app::exportXML(db, crateIds, file);
}

}  // namespace orvel::app
