// Serato's tag-length-value files on one input, read as each of the three
// things Orvel reads them as: the track database, a crate and a smart crate.
// The parsed records are also written back with SeratoTLV's own writers and
// read again, which must give the same records.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/formats/serato_library.h"
#include "core/formats/serato_tlv.h"
#include "core/text/path_norm.h"
#include "fuzz/fuzz_checks.h"

namespace orvel::fuzz {
namespace {

bool sameFields(std::span<const SeratoField> a, std::span<const SeratoField> b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const SeratoValue& x = a[i].value;
    const SeratoValue& y = b[i].value;
    if (a[i].tag != b[i].tag || x.kind != y.kind || x.text != y.text || x.number != y.number ||
        x.bytes != y.bytes || !sameFields(x.fields, y.fields))
      return false;
  }
  return true;
}

// Checks what every record promises and answers how many records there are,
// nested ones included.
size_t checkFields(std::span<const SeratoField> fields, int depth, size_t inputSize) {
  require(depth <= SeratoTLV::kMaxDepth);
  size_t count = fields.size();
  for (const SeratoField& f : fields) {
    require(f.tag.size() == 4);
    for (char c : f.tag) require(static_cast<unsigned char>(c) < 0x80);
    const SeratoValue& v = f.value;
    switch (v.kind) {
      case SeratoValue::Kind::string:
        require(isValidUtf8(v.text));
        break;
      case SeratoValue::Kind::u16:
        require(v.number <= 0xFFFF);
        break;
      case SeratoValue::Kind::byte:
        require(v.number <= 0xFF);
        break;
      case SeratoValue::Kind::raw:
        require(v.bytes.size() <= inputSize);
        break;
      case SeratoValue::Kind::container:
        count += checkFields(v.fields, depth + 1, inputSize);
        break;
      case SeratoValue::Kind::u32:
        break;
    }
  }
  return count;
}

void write(std::vector<uint8_t>& out, std::span<const SeratoField> fields) {
  for (const SeratoField& f : fields) {
    const SeratoValue& v = f.value;
    switch (v.kind) {
      case SeratoValue::Kind::string:
        SeratoTLV::appendString(out, f.tag, v.text);
        break;
      case SeratoValue::Kind::u32:
        SeratoTLV::appendU32(out, f.tag, v.number);
        break;
      case SeratoValue::Kind::u16: {
        const uint8_t b[2] = {static_cast<uint8_t>(v.number >> 8), static_cast<uint8_t>(v.number)};
        SeratoTLV::appendBytes(out, f.tag, b);
        break;
      }
      case SeratoValue::Kind::byte: {
        const uint8_t b[1] = {static_cast<uint8_t>(v.number)};
        SeratoTLV::appendBytes(out, f.tag, b);
        break;
      }
      case SeratoValue::Kind::container: {
        std::vector<uint8_t> inner;
        write(inner, v.fields);
        SeratoTLV::appendBytes(out, f.tag, inner);
        break;
      }
      case SeratoValue::Kind::raw:
        SeratoTLV::appendBytes(out, f.tag, v.bytes);
        break;
    }
  }
}

size_t countTopLevel(std::span<const SeratoField> fields, std::string_view tag, bool containers) {
  size_t n = 0;
  for (const SeratoField& f : fields)
    if (f.tag == tag && (!containers || f.value.asContainer())) ++n;
  return n;
}

void checkRecords(std::span<const uint8_t> input, const std::vector<SeratoField>& fields) {
  require(sameFields(fields, SeratoTLV::parse(input)));
  // Every record, nested or not, takes at least its 8-byte header.
  require(checkFields(fields, 0, input.size()) * 8 <= input.size());

  // Writing back drops only what the reader skipped (a trailing fragment, a
  // text that did not decode), so it is never longer and reads the same.
  std::vector<uint8_t> rewritten;
  write(rewritten, fields);
  require(rewritten.size() <= input.size());
  require(sameFields(SeratoTLV::parse(rewritten), fields));
}

bool sameTrack(const SeratoTrack& a, const SeratoTrack& b) {
  return a.path == b.path && a.title == b.title && a.artist == b.artist && a.album == b.album &&
         a.genre == b.genre && a.comment == b.comment && a.grouping == b.grouping &&
         a.label == b.label && a.year == b.year && a.bpm == b.bpm && a.key == b.key &&
         a.durationText == b.durationText && a.bitrateText == b.bitrateText &&
         a.sampleRateText == b.sampleRateText && a.sizeText == b.sizeText &&
         a.fileType == b.fileType && a.dateAddedUnix == b.dateAddedUnix;
}

bool validText(const std::optional<std::string>& s) {
  return !s || isValidUtf8(*s);
}

std::optional<SeratoLibrary> database(std::span<const uint8_t> input) {
  try {
    return SeratoLibrary::fromDatabase(input);
  } catch (const SeratoReadError&) {
    return std::nullopt;
  }
}

void checkDatabase(std::span<const uint8_t> input, const std::vector<SeratoField>& fields) {
  const auto read = database(input);
  require(read.has_value() == database(input).has_value());
  if (!read) {
    // Refused only where there is no track at all to take.
    for (const SeratoField& f : fields)
      if (f.tag == "otrk")
        if (const auto* inner = f.value.asContainer()) require(!SeratoLibrary::track(*inner));
    return;
  }
  const SeratoLibrary& library = *read;
  const SeratoLibrary again = *database(input);
  require(library.version == again.version &&
          library.skippedTrackChunks == again.skippedTrackChunks &&
          library.tracks.size() == again.tracks.size());
  for (size_t i = 0; i < library.tracks.size(); ++i)
    require(sameTrack(library.tracks[i], again.tracks[i]));
  require(library.crates.empty());

  // Each track chunk is either a track or counted as skipped.
  require(library.skippedTrackChunks >= 0);
  require(library.tracks.size() + static_cast<size_t>(library.skippedTrackChunks) ==
          countTopLevel(fields, "otrk", false));
  require(isValidUtf8(library.version));
  for (const SeratoTrack& t : library.tracks) {
    require(!t.path.empty() && t.path.front() == '/' && isValidUtf8(t.path));
    for (const auto* text : {&t.title, &t.artist, &t.album, &t.genre, &t.comment, &t.grouping,
                             &t.label, &t.year, &t.bpm, &t.key, &t.durationText, &t.bitrateText,
                             &t.sampleRateText, &t.sizeText, &t.fileType})
      require(validText(*text));
  }
}

void checkCrate(std::span<const uint8_t> input, const std::vector<SeratoField>& fields) {
  const std::vector<std::string> paths = SeratoLibrary::crateTrackPaths(input);
  require(paths == SeratoLibrary::crateTrackPaths(input));
  require(paths.size() <= countTopLevel(fields, "otrk", true));
  for (const std::string& path : paths)
    require(!path.empty() && path.front() == '/' && isValidUtf8(path));
}

void checkSmartCrate(std::span<const uint8_t> input, const std::vector<SeratoField>& fields) {
  SeratoCrate crate;
  SeratoLibrary::applyRules(input, crate);
  // The rule records are "r" tags, which the generic parse keeps as raw
  // bytes; applyRules reads inside them.
  require(crate.rules.size() <= countTopLevel(fields, "rurt", false));
  // Serato's defaults stand unless the file says otherwise.
  if (countTopLevel(fields, "rart", false) == 0) require(crate.matchAll);
  if (countTopLevel(fields, "rlut", false) == 0) require(crate.live);
  for (const SeratoSmartRule& rule : crate.rules) {
    require(!rule.conditionRaw.empty());
    const std::string summary = rule.summary();
    require(!summary.empty() && isValidUtf8(summary));
  }

  SeratoCrate again;
  SeratoLibrary::applyRules(input, again);
  require(again.matchAll == crate.matchAll && again.live == crate.live &&
          again.rules.size() == crate.rules.size());
  for (size_t i = 0; i < crate.rules.size(); ++i)
    require(again.rules[i].summary() == crate.rules[i].summary());
}

}  // namespace
}  // namespace orvel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orvel::fuzz;
  const std::span<const uint8_t> input(data, size);
  const std::vector<orvel::SeratoField> fields = orvel::SeratoTLV::parse(input);
  checkRecords(input, fields);
  checkDatabase(input, fields);
  checkCrate(input, fields);
  checkSmartCrate(input, fields);
  return 0;
}
