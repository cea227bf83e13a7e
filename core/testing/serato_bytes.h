// Serato's per-file tags and ID3 tags built byte by byte, for tests that
// need a file exactly as another program writes it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace orvel::testing {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(std::string_view text);
Bytes concat(std::initializer_list<Bytes> parts);
Bytes u32be(uint32_t v);
Bytes f32be(float v);
Bytes synchsafe(uint32_t v);

// A GEOB frame body: encoding byte, MIME type, file name, description (both
// already encoded and terminated as `encoding` wants), then the object.
Bytes geobBody(uint8_t encoding, const Bytes& fileName, const Bytes& description,
               const Bytes& object, std::string_view mime = "application/octet-stream");
// The description "text" terminated for encodings 0/3 (one NUL), 1 (BOM +
// UTF-16LE, two NULs) and 2 (UTF-16BE, two NULs). ASCII text only.
Bytes encodedText(std::string_view ascii, uint8_t encoding);

struct Id3Frame {
  std::string id{};  // "GEOB", "GEO", "TIT2"…
  Bytes body{};
  uint8_t flags2 = 0;                      // second flags byte (v2.3/2.4)
  std::optional<uint32_t> declaredSize{};  // what the header says, if not body.size()
};
// A whole tag: header, optional extended header, frames, padding.
Bytes id3Tag(uint8_t version, const std::vector<Id3Frame>& frames, uint8_t flags = 0,
             const Bytes& extendedHeader = {}, size_t padding = 0);

// A "Serato Markers2" entry and the GEOB object holding the entries, as
// Serato writes it: base64 without "=" padding, wrapped every 72 characters,
// NUL padded.
Bytes markersEntry(std::string_view type, const Bytes& body);
Bytes cueBody(uint8_t index, uint32_t positionMs, uint8_t r, uint8_t g, uint8_t b,
              std::optional<std::string> name);
// A saved loop as Serato writes it: the colour (0xRRGGBB) at 14..17, the
// locked flag at 19, the name from 20.
Bytes loopBody(uint8_t index, uint32_t startMs, uint32_t endMs, std::optional<std::string> name,
               uint32_t rgb = 0x27AAE1, bool locked = false);
Bytes markers2Object(const std::vector<Bytes>& entries, size_t nulPadding = 16);
// "Serato BeatGrid": (position seconds, beats to the next marker, written as
// an integer, or for the last marker its BPM, written as a float).
Bytes beatGridObject(const std::vector<std::pair<float, float>>& markers,
                     std::optional<uint32_t> declaredCount = std::nullopt);

// Serato's library files, as TLV records.
using SeratoFields = std::vector<std::pair<std::string, std::string>>;  // (tag, text)
// One "otrk" record of "database V2" ({"pfil", "Users/a.mp3"}, {"tsng", …}).
Bytes seratoTrackRecord(const SeratoFields& fields, std::optional<uint32_t> dateAdded = {});
Bytes seratoDatabase(const std::vector<Bytes>& trackRecords);
Bytes seratoCrate(const std::vector<std::string>& paths);
struct SeratoRuleSpec {
  uint32_t field = 0;
  std::string condition{};
  std::optional<std::string> text{};
  std::optional<uint32_t> number{};
};
Bytes seratoSmartCrate(const std::vector<SeratoRuleSpec>& rules, bool matchAll, bool live);

std::string base64(const Bytes& data);

// The same payloads outside ID3, as Serato writes them into other containers.
// The envelope: base64 (no "=", a line break every 72 characters) of
// "application/octet-stream", NUL, NUL, the description, NUL, the object.
std::string seratoEnvelope(std::string_view description, const Bytes& object);
using Comments = std::vector<std::pair<std::string, std::string>>;
// A FLAC stream: "fLaC", STREAMINFO, a VORBIS_COMMENT block, a few frame bytes.
Bytes flacFile(const Comments& comments);
// An Ogg Vorbis stream: the identification page, the comment header (over as
// many pages as it takes), then a page of audio.
Bytes oggVorbisFile(const Comments& comments);
// An MP4 file with ----:MEAN:NAME items in moov/udta/meta/ilst, after mdat.
Bytes mp4File(const std::vector<std::tuple<std::string, std::string, std::string>>& items);
// AIFF (big-endian chunks) and WAV (little-endian) with an "ID3 " chunk.
Bytes aiffFile(const Bytes& id3);
Bytes wavFile(const Bytes& id3);
void writeBytes(const std::filesystem::path& file, const Bytes& bytes);

}  // namespace orvel::testing
