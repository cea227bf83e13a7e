#include "core/formats/serato_library.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>

#include "core/text/encoding.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;

std::string absolute(std::string path) {
  // Serato stores paths relative to the root of their volume.
  if (path.empty() || path.front() != '/') path.insert(path.begin(), '/');
  return path;
}

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

// The whole file, or the system's reason it could not be read.
std::vector<uint8_t> readWhole(const fs::path& file) {
  errno = 0;
  std::unique_ptr<std::FILE, FileCloser> f(std::fopen(file.c_str(), "rb"));
  if (!f) throw SeratoReadError(fmt::format("{}: {}", file.string(), std::strerror(errno)));
  // Sized from the file first: a large database then costs one read and no
  // copies. The loop still takes whatever is really there.
  std::error_code ec;
  const auto expected = fs::file_size(file, ec);
  std::vector<uint8_t> bytes(ec ? size_t{1} << 16 : static_cast<size_t>(expected) + 1);
  size_t got = 0;
  for (;;) {
    if (got == bytes.size()) bytes.resize(bytes.size() * 2);
    const size_t n = std::fread(bytes.data() + got, 1, bytes.size() - got, f.get());
    got += n;
    if (n == 0) break;
  }
  bytes.resize(got);
  if (std::ferror(f.get()))
    throw SeratoReadError(fmt::format("{}: {}", file.string(), std::strerror(errno)));
  return bytes;
}

// The names in `dir` that end in `extension`, ascending; none when the folder
// cannot be listed.
std::vector<std::string> filesEndingIn(const fs::path& dir, std::string_view extension) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::string name = it->path().filename().string();
    if (name.size() > extension.size() && name.ends_with(extension))
      names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The records nested in a smart crate's "r" records. Their tags do not begin
// with "o", so the generic parse leaves them as raw bytes.
std::optional<std::vector<SeratoField>> nestedFields(const SeratoValue& value) {
  if (const auto* fields = value.asContainer()) return *fields;
  if (value.kind == SeratoValue::Kind::raw) return SeratoTLV::parse(value.bytes);
  return std::nullopt;
}

// A "brut" flag: a byte or number is true when non-zero, raw bytes when the
// last is non-zero or there are none; anything else, or no flag, is true.
bool flagOf(std::span<const SeratoField> inner) {
  const SeratoField* brut = SeratoTLV::find(inner, "brut");
  if (!brut) return true;
  const SeratoValue& v = brut->value;
  switch (v.kind) {
    case SeratoValue::Kind::byte:
    case SeratoValue::Kind::u32:
      return v.number != 0;
    case SeratoValue::Kind::raw:
      return v.bytes.empty() || v.bytes.back() != 0;
    default:
      return true;
  }
}

}  // namespace

namespace {

// Where a drive is mounted: the folder's device differs from its parent's,
// or it is its own parent ("/").
bool isMountPoint(const fs::path& dir) {
  struct stat self {
  }, above{};
  if (::stat(dir.c_str(), &self) != 0) return false;
  if (::stat((dir / "..").c_str(), &above) != 0) return false;
  return self.st_dev != above.st_dev || self.st_ino == above.st_ino;
}

void rebase(std::string& path, const std::string& root) {
  // Stored as "/" + the path on the drive (see absolute()).
  path = root + path;
}

}  // namespace

fs::path SeratoLibrary::volumeRootFor(const fs::path& seratoDir, const SeratoLibrary& library) {
  std::error_code ec;
  fs::path dir = fs::weakly_canonical(fs::absolute(seratoDir, ec), ec);
  if (ec) dir = fs::absolute(seratoDir, ec).lexically_normal();
  if (!dir.has_filename()) dir = dir.parent_path();
  const fs::path drive = dir.parent_path();
  if (drive.empty() || drive == drive.root_path()) return "/";
  if (isMountPoint(drive)) return drive;
  // Not a mount point: a drive's contents copied into a folder, or a library
  // kept elsewhere by hand. The files decide, a few of them.
  constexpr int kSample = 32;
  int atRoot = 0, onDrive = 0, looked = 0;
  auto look = [&](const std::string& path) {
    if (looked++ >= kSample) return;
    std::error_code e;
    atRoot += fs::exists(path, e);
    onDrive += fs::exists(drive.string() + path, e);
  };
  for (const SeratoTrack& t : library.tracks) look(t.path);
  for (const SeratoCrate& c : library.crates)
    for (const std::string& p : c.trackPaths) look(p);
  return onDrive > atRoot ? drive : fs::path("/");
}

SeratoLibrary SeratoLibrary::load(const fs::path& seratoDir) {
  std::error_code ec;
  const fs::path databaseFile = seratoDir / kDatabaseFile;
  const bool anyCrates = fs::is_directory(seratoDir / kCratesFolder, ec) ||
                         fs::is_directory(seratoDir / kSmartCratesFolder, ec);
  SeratoLibrary library;
  if (fs::exists(databaseFile, ec) || !anyCrates) {
    const std::vector<uint8_t> database = readWhole(databaseFile);
    try {
      library = fromDatabase(database);
    } catch (const SeratoReadError& e) {
      throw SeratoReadError(fmt::format("{}: {}", databaseFile.string(), e.what()));
    }
  } else {
    library.hasDatabase = false;
  }

  for (const std::string& name : filesEndingIn(seratoDir / kCratesFolder, ".crate")) {
    SeratoCrate crate;
    crate.nameChain = nameChain(name);
    try {
      crate.trackPaths = crateTrackPaths(readWhole(seratoDir / kCratesFolder / name));
    } catch (const SeratoReadError&) {
      // An unreadable crate is still a crate; it just brings no members.
    }
    library.crates.push_back(std::move(crate));
  }
  for (const std::string& name : filesEndingIn(seratoDir / kSmartCratesFolder, ".scrate")) {
    SeratoCrate crate;
    crate.nameChain = nameChain(name);
    crate.isSmart = true;
    try {
      const std::vector<uint8_t> bytes = readWhole(seratoDir / kSmartCratesFolder / name);
      applyRules(bytes, crate);
      // Serato lists what the rules last gave, as an ordinary crate does.
      crate.trackPaths = crateTrackPaths(bytes);
    } catch (const SeratoReadError&) {
    }
    library.crates.push_back(std::move(crate));
  }

  const fs::path root = volumeRootFor(seratoDir, library);
  if (root != "/") {
    library.volumeRoot = root.string();
    for (SeratoTrack& t : library.tracks) rebase(t.path, library.volumeRoot);
    for (SeratoCrate& c : library.crates)
      for (std::string& p : c.trackPaths) rebase(p, library.volumeRoot);
  }
  return library;
}

SeratoLibrary SeratoLibrary::fromDatabase(std::span<const uint8_t> database) {
  SeratoLibrary library;
  bool serato = false;
  for (const SeratoField& field : SeratoTLV::parse(database)) {
    if (field.tag == "vrsn") {
      if (const auto* text = field.value.asString()) {
        library.version = *text;
        serato = serato || text->find("Serato") != std::string::npos;
      }
    } else if (field.tag == "otrk") {
      const auto* fields = field.value.asContainer();
      auto track = fields ? SeratoLibrary::track(*fields) : std::nullopt;
      if (track) {
        library.tracks.push_back(std::move(*track));
        serato = true;
      } else {
        ++library.skippedTrackChunks;
      }
    }
  }
  // Serato always writes its version record first; bytes that yield neither
  // it nor a single track are something else under Serato's file name.
  if (!serato)
    throw SeratoReadError(database.empty() ? "the file is empty"
                                           : "not a Serato database (no version, no tracks)");
  return library;
}

namespace {

constexpr uint32_t tagKey(std::string_view tag) {
  return uint32_t{static_cast<uint8_t>(tag[0])} << 24 |
         uint32_t{static_cast<uint8_t>(tag[1])} << 16 |
         uint32_t{static_cast<uint8_t>(tag[2])} << 8 | uint32_t{static_cast<uint8_t>(tag[3])};
}

}  // namespace

std::optional<SeratoTrack> SeratoLibrary::track(std::span<const SeratoField> fields) {
  SeratoTrack t;
  bool hasPath = false;
  for (const SeratoField& f : fields) {
    if (f.tag.size() != 4) continue;
    // A database holds millions of these records: one integer switch per
    // field instead of a string comparison per known tag.
    const uint32_t key = tagKey(f.tag);
    if (key == tagKey("uadd")) {
      if (f.value.kind == SeratoValue::Kind::u32) t.dateAddedUnix = f.value.number;
      continue;
    }
    const std::string* text = f.value.asString();
    if (!text) continue;
    std::optional<std::string>* into = nullptr;
    switch (key) {
      case tagKey("pfil"):
        t.path = absolute(*text);
        hasPath = true;
        break;
      case tagKey("tsng"):
        into = &t.title;
        break;
      case tagKey("tart"):
        into = &t.artist;
        break;
      case tagKey("talb"):
        into = &t.album;
        break;
      case tagKey("tgen"):
        into = &t.genre;
        break;
      case tagKey("tcom"):
        into = &t.comment;
        break;
      case tagKey("tgrp"):
        into = &t.grouping;
        break;
      case tagKey("tlbl"):
        into = &t.label;
        break;
      case tagKey("ttyr"):
        into = &t.year;
        break;
      case tagKey("tbpm"):
        into = &t.bpm;
        break;
      case tagKey("tkey"):
        into = &t.key;
        break;
      case tagKey("tlen"):
        into = &t.durationText;
        break;
      case tagKey("tbit"):
        into = &t.bitrateText;
        break;
      case tagKey("tsmp"):
        into = &t.sampleRateText;
        break;
      case tagKey("tsiz"):
        into = &t.sizeText;
        break;
      case tagKey("ttyp"):
        into = &t.fileType;
        break;
      default:
        break;
    }
    if (into) *into = *text;
  }
  if (!hasPath) return std::nullopt;
  return t;
}

std::vector<std::string> SeratoLibrary::nameChain(const std::string& fileName) {
  std::string stem = fileName;
  if (const size_t dot = stem.rfind('.'); dot != std::string::npos) stem.resize(dot);
  std::vector<std::string> chain;
  size_t start = 0;
  for (size_t at; (at = stem.find("%%", start)) != std::string::npos; start = at + 2)
    chain.push_back(stem.substr(start, at - start));
  chain.push_back(stem.substr(start));
  return chain;
}

std::vector<std::string> SeratoLibrary::crateTrackPaths(std::span<const uint8_t> crateFile) {
  std::vector<std::string> paths;
  for (const SeratoField& field : SeratoTLV::parse(crateFile)) {
    if (field.tag != "otrk") continue;
    const auto* fields = field.value.asContainer();
    const SeratoField* ptrk = fields ? SeratoTLV::find(*fields, "ptrk") : nullptr;
    if (const std::string* path = ptrk ? ptrk->value.asString() : nullptr)
      paths.push_back(absolute(*path));
  }
  return paths;
}

void SeratoLibrary::applyRules(std::span<const uint8_t> smartCrateFile, SeratoCrate& crate) {
  for (const SeratoField& field : SeratoTLV::parse(smartCrateFile)) {
    if (field.tag != "rurt" && field.tag != "rart" && field.tag != "rlut") continue;
    const auto inner = nestedFields(field.value);
    if (!inner) continue;
    if (field.tag == "rurt") {
      SeratoSmartRule rule;
      for (const SeratoField& f : *inner) {
        if (f.tag == "urkt" && f.value.kind == SeratoValue::Kind::u32)
          rule.fieldId = f.value.number;
        else if (f.tag == "urpt" && f.value.kind == SeratoValue::Kind::u32)
          rule.uintValue = f.value.number;
        else if (f.tag == "trft" && f.value.asString())
          rule.conditionRaw = f.value.text;
        else if (f.tag == "trpt" && f.value.asString())
          rule.textValue = f.value.text;
        else if (f.tag == "trtt" && f.value.asString())
          rule.dateText = f.value.text;
      }
      if (!rule.conditionRaw.empty()) crate.rules.push_back(std::move(rule));
    } else if (field.tag == "rart") {
      crate.matchAll = flagOf(*inner);
    } else if (field.tag == "rlut") {
      crate.live = flagOf(*inner);
    }
  }
}

const std::map<uint32_t, std::string>& SeratoSmartRule::knownFields() {
  // Serato numbers the columns of its library; these are the ones its smart
  // crates offer.
  static const std::map<uint32_t, std::string> fields{
      {4, "Filename"},  {6, "Song"},     {7, "Artist"},    {8, "Album"},    {9, "Genre"},
      {15, "BPM"},      {17, "Comment"}, {19, "Grouping"}, {20, "Remixer"}, {21, "Label"},
      {22, "Composer"}, {23, "Year"},    {25, "Added"},    {51, "Key"},     {79, "Plays"}};
  return fields;
}

std::string SeratoSmartRule::fieldName() const {
  const auto& known = knownFields();
  if (const auto it = known.find(fieldId); it != known.end()) return it->second;
  return fmt::format("field {}", fieldId);
}

namespace {

// "cond_dnc_str" → ("dnc", "str"); empty parts for a key of another shape.
std::pair<std::string_view, std::string_view> conditionParts(std::string_view key) {
  if (!key.starts_with("cond_")) return {};
  key.remove_prefix(5);
  const size_t underscore = key.rfind('_');
  if (underscore == std::string_view::npos) return {};
  return {key.substr(0, underscore), key.substr(underscore + 1)};
}

}  // namespace

SeratoSmartRule::Test SeratoSmartRule::test() const {
  static const std::map<std::string, Test, std::less<>> tests{
      {"is", Test::is},
      {"isn", Test::isNot},
      {"isnot", Test::isNot},
      {"not", Test::isNot},
      {"con", Test::contains},
      {"dnc", Test::doesNotContain},
      {"notcon", Test::doesNotContain},
      {"ncon", Test::doesNotContain},
      {"bgn", Test::beginsWith},
      {"beg", Test::beginsWith},
      {"sw", Test::beginsWith},
      {"end", Test::endsWith},
      {"ew", Test::endsWith},
      {"grt", Test::greaterThan},
      {"gt", Test::greaterThan},
      {"les", Test::lessThan},
      {"lst", Test::lessThan},
      {"lt", Test::lessThan},
      {"greq", Test::atLeast},
      {"gte", Test::atLeast},
      {"lseq", Test::atMost},
      {"lte", Test::atMost},
      {"aft", Test::after},
      {"bef", Test::before},
      {"itl", Test::inLast},
      {"inl", Test::inLast},
      {"nitl", Test::notInLast},
      {"ninl", Test::notInLast},
  };
  const auto [op, kind] = conditionParts(conditionRaw);
  const auto it = tests.find(op);
  if (it == tests.end()) return Test::unknown;
  // On a date, "at least" and "at most" read as after and before.
  if (kind == "time" && it->second == Test::atLeast) return Test::after;
  if (kind == "time" && it->second == Test::atMost) return Test::before;
  return it->second;
}

SeratoSmartRule::ValueKind SeratoSmartRule::valueKind() const {
  const auto kind = conditionParts(conditionRaw).second;
  if (kind == "str") return ValueKind::text;
  if (kind == "int" || kind == "uint") return ValueKind::number;
  if (kind == "time" || kind == "date") return ValueKind::time;
  return ValueKind::unknown;
}

std::string SeratoSmartRule::conditionName() const {
  switch (test()) {
    case Test::is:
      return "is";
    case Test::isNot:
      return "is not";
    case Test::contains:
      return "contains";
    case Test::doesNotContain:
      return "does not contain";
    case Test::beginsWith:
      return "begins with";
    case Test::endsWith:
      return "ends with";
    case Test::greaterThan:
      return "is greater than";
    case Test::lessThan:
      return "is less than";
    case Test::atLeast:
      return "is at least";
    case Test::atMost:
      return "is at most";
    case Test::after:
      return "is after";
    case Test::before:
      return "is before";
    case Test::inLast:
      return "is in the last";
    case Test::notInLast:
      return "is not in the last";
    case Test::unknown:
      break;
  }
  return conditionRaw;
}

std::string SeratoSmartRule::describedValue() const {
  auto quoted = [](const std::string& text) { return "\u201C" + text + "\u201D"; };
  if (textValue) {
    // "In the last 2 weeks": the count is the number, the text its unit.
    if (uintValue && (test() == Test::inLast || test() == Test::notInLast))
      return fmt::format("{} {}", *uintValue, *textValue);
    return quoted(*textValue);
  }
  if (dateText) {
    if (uintValue && (test() == Test::inLast || test() == Test::notInLast))
      return fmt::format("{} {}", *uintValue, *dateText);
    return quoted(*dateText);
  }
  return std::to_string(uintValue.value_or(0));
}

std::string SeratoSmartRule::summary() const {
  return fieldName() + " " + conditionName() + " " + describedValue();
}

}  // namespace orvel
