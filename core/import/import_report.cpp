#include "core/import/import_report.h"

#include <fmt/format.h>

#include "core/store/log.h"

namespace orvel::Importer {
namespace {

std::string dupesPart(const Result& r) {
  return r.dupes >= 1 ? fmt::format(" · {} already here", r.dupes) : std::string();
}

}  // namespace

std::string statusText(const Result& r) {
  return fmt::format("Added {}{}", r.added.size(), dupesPart(r));
}

Toast toast(const Result& r) {
  return {"folder.badge.plus", fmt::format("Added {} {}{}", r.added.size(),
                                           r.added.size() == 1 ? "track" : "tracks", dupesPart(r))};
}

std::string logLine(const Result& r, std::string_view note) {
  return fmt::format("import in place: {} in, {} dupes, {} failed <- {}", r.added.size(), r.dupes,
                     r.failed, note);
}

}  // namespace orvel::Importer

namespace orvel::Importer {

Result importInPlace(std::span<const std::filesystem::path> urls, OrvelDB& db,
                     const Options& options, std::string_view note) {
  Result r = ingest(urls, db, options);
  orvel::note(logLine(r, note));
  return r;
}

}  // namespace orvel::Importer
