#include "core/formats/serato_payloads.h"

#include <gmock/gmock.h>

#include "core/formats/serato_tags.h"
#include "core/testing/serato_bytes.h"
#include "core/testing/temp_dir.h"

namespace orvel {
namespace {

using testing::Bytes;
using testing::bytesOf;
using testing::concat;
using testing::cueBody;
using testing::loopBody;
using testing::markers2Object;
using testing::markersEntry;

const Bytes& markers2() {
  static const Bytes object =
      markers2Object({markersEntry("COLOR", {0, 0xFF, 0x99, 0x00}),
                      markersEntry("CUE", cueBody(0, 1500, 0xCC, 0, 0, "Drop")),
                      markersEntry("CUE", cueBody(2, 64000, 0, 0xCC, 0, "Break")),
                      markersEntry("LOOP", loopBody(0, 30000, 38000, "Outro"))});
  return object;
}

const Bytes& beatGrid() {
  static const Bytes object = testing::beatGridObject({{0.25f, 64}, {30.25f, 124.0f}});
  return object;
}

void expectTheSameTags(const SeratoFileTags& tags, const std::string& container) {
  SCOPED_TRACE(container);
  ASSERT_EQ(tags.cues.size(), 2u);
  EXPECT_EQ(tags.cues[1].name, "Break");
  EXPECT_EQ(tags.cues[1].positionMs, 64000);
  ASSERT_EQ(tags.loops.size(), 1u);
  EXPECT_EQ(tags.loops[0].name, "Outro");
  EXPECT_EQ(tags.trackColorHex, "#FF9900");
  ASSERT_EQ(tags.gridAnchors.size(), 2u);
  EXPECT_DOUBLE_EQ(*SeratoFileTags::tempoAt(tags.gridAnchors, 0), 128.0);
  EXPECT_EQ(tags.gridAnchors[1].bpm, 124.0);
}

testing::Id3Frame geob(std::string_view description, const Bytes& object) {
  using testing::encodedText;
  return {"GEOB", testing::geobBody(0, encodedText("", 0), encodedText(description, 0), object)};
}

Bytes id3WithBoth() {
  return testing::id3Tag(
      4, {geob("Serato Markers2", markers2()), geob("Serato BeatGrid", beatGrid())});
}

// Every container a DJ's files come in, built as Serato writes it.
std::vector<std::pair<std::string, Bytes>> containers() {
  const std::string m = testing::seratoEnvelope("Serato Markers2", markers2());
  const std::string g = testing::seratoEnvelope("Serato BeatGrid", beatGrid());
  // Enough text before Serato's comments that the comment header spans
  // several Ogg pages.
  const std::string lyrics(3000, 'l');
  return {
      {"mp3", concat({id3WithBoth(), Bytes(400, 0xFF)})},
      {"flac",
       testing::flacFile({{"TITLE", "x"}, {"SERATO_MARKERS_V2", m}, {"SERATO_BEATGRID", g}})},
      {"flac after an ID3 tag",
       concat({testing::id3Tag(3, {{"TIT2", concat({{0}, bytesOf("t")})}}),
               testing::flacFile({{"SERATO_MARKERS_V2", m}, {"SERATO_BEATGRID", g}})})},
      {"ogg", testing::oggVorbisFile(
                  {{"LYRICS", lyrics}, {"serato_markers2", m}, {"serato_beatgrid", g}})},
      {"m4a", testing::mp4File({{"com.apple.iTunes", "iTunNORM", "0000"},
                                {"com.serato.dj", "markers", "AAAA"},
                                {"com.serato.dj", "markersv2", m},
                                {"com.serato.dj", "beatgrid", g}})},
      {"aiff", testing::aiffFile(id3WithBoth())},
      {"wav", testing::wavFile(id3WithBoth())},
  };
}

TEST(SeratoPayloads, EveryContainerGivesTheSameCuesLoopsAndGrid) {
  orvel::testing::TempDir dir;
  for (const auto& [name, bytes] : containers()) {
    const std::filesystem::path file = dir / ("track " + name);
    testing::writeBytes(file, bytes);
    expectTheSameTags(SeratoFileTags::read(file), name);
  }
}

TEST(SeratoPayloads, ACutOrDamagedContainerGivesWhatCameBeforeTheFault) {
  for (const auto& [name, bytes] : containers()) {
    SCOPED_TRACE(name);
    const size_t whole =
        SeratoFileTags::fromPayloads(SeratoPayloads::find(MemorySource(bytes))).cues.size();
    for (size_t n = 0; n < bytes.size(); n += 1 + n / 16) {
      const std::span<const uint8_t> cut(bytes.data(), n);
      const auto tags = SeratoFileTags::fromPayloads(SeratoPayloads::find(MemorySource(cut)));
      EXPECT_LE(tags.cues.size(), whole) << n;
    }
    // Lengths that claim far more than there is end the walk.
    Bytes lying = bytes;
    for (size_t i = 4; i + 4 < lying.size(); i += 97) lying[i] = 0xFF;
    (void)SeratoPayloads::find(MemorySource(lying));
  }
  EXPECT_TRUE(SeratoPayloads::find(std::filesystem::path("/no/such/file")).empty());
}

TEST(SeratoPayloads, EnvelopesAndSeratosBase64) {
  const auto frame = SeratoPayloads::fromEnvelope(
      testing::seratoEnvelope("Serato BeatGrid", beatGrid()), "anything");
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->description, "Serato BeatGrid");
  EXPECT_EQ(frame->object, beatGrid());
  // Without an envelope the key decides what the bytes are.
  const auto bare = SeratoPayloads::fromEnvelope(testing::base64(beatGrid()), "Serato BeatGrid");
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->object, beatGrid());
  EXPECT_FALSE(SeratoPayloads::fromEnvelope("not base64 at all!", "Serato BeatGrid"));
  EXPECT_FALSE(SeratoPayloads::fromEnvelope(
      testing::base64(bytesOf(std::string("application/octet-stream\0\0nul-less", 34))), "x"));

  // Line breaks, trailing NULs, no padding and a stray fifth character.
  EXPECT_EQ(SeratoPayloads::seratoBase64("AQ\nID\0\0"), (Bytes{1, 2, 3}));
  EXPECT_EQ(SeratoPayloads::seratoBase64("AQID"
                                         "B"),
            (Bytes{1, 2, 3}));
  EXPECT_EQ(SeratoPayloads::seratoBase64("AQI"), (Bytes{1, 2}));
  EXPECT_FALSE(SeratoPayloads::seratoBase64(std::string(3, '\0')));

  const auto comments = SeratoPayloads::vorbisComments(concat({{3, 0, 0, 0},
                                                               bytesOf("abc"),
                                                               {2, 0, 0, 0},
                                                               {3, 0, 0, 0},
                                                               bytesOf("K=v"),
                                                               {9, 0, 0, 0},
                                                               bytesOf("cut")}));
  ASSERT_EQ(comments.size(), 1u);
  EXPECT_EQ(comments[0], (std::pair<std::string, std::string>{"K", "v"}));
}

}  // namespace
}  // namespace orvel
