#include "core/formats/serato_library.h"

#include <fmt/format.h>

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

SeratoLibrary SeratoLibrary::load(const fs::path& seratoDir) {
  const std::vector<uint8_t> database = readWhole(seratoDir / kDatabaseFile);
  SeratoLibrary library = fromDatabase(database);

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
      applyRules(readWhole(seratoDir / kSmartCratesFolder / name), crate);
    } catch (const SeratoReadError&) {
    }
    library.crates.push_back(std::move(crate));
  }
  return library;
}

SeratoLibrary SeratoLibrary::fromDatabase(std::span<const uint8_t> database) {
  SeratoLibrary library;
  for (const SeratoField& field : SeratoTLV::parse(database)) {
    if (field.tag == "vrsn") {
      if (const auto* text = field.value.asString()) library.version = *text;
    } else if (field.tag == "otrk") {
      const auto* fields = field.value.asContainer();
      auto track = fields ? SeratoLibrary::track(*fields) : std::nullopt;
      if (track)
        library.tracks.push_back(std::move(*track));
      else
        ++library.skippedTrackChunks;
    }
  }
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
  static const std::map<uint32_t, std::string> fields{{7, "Artist"}, {15, "BPM"}};
  return fields;
}

std::string SeratoSmartRule::fieldName() const {
  const auto& known = knownFields();
  if (const auto it = known.find(fieldId); it != known.end()) return it->second;
  return fmt::format("field {}", fieldId);
}

std::string SeratoSmartRule::conditionName() const {
  static const std::map<std::string, std::string, std::less<>> names{
      {"cond_is_str", "is"},
      {"cond_is_uint", "is"},
      {"cond_isnot_str", "is not"},
      {"cond_isnot_uint", "is not"},
      {"cond_con_str", "contains"},
      {"cond_notcon_str", "does not contain"},
      {"cond_bgn_str", "begins with"},
      {"cond_end_str", "ends with"},
      {"cond_lseq_uint", "is at most"},
      {"cond_greq_uint", "is at least"},
      {"cond_lseq_time", "is before"},
      {"cond_greq_time", "is after"},
  };
  if (const auto it = names.find(conditionRaw); it != names.end()) return it->second;
  return conditionRaw;
}

std::string SeratoSmartRule::describedValue() const {
  if (textValue) return "\u201C" + *textValue + "\u201D";
  return std::to_string(uintValue.value_or(0));
}

std::string SeratoSmartRule::summary() const {
  return fieldName() + " " + conditionName() + " " + describedValue();
}

}  // namespace orvel
