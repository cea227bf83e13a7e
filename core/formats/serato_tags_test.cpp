#include "core/formats/serato_tags.h"

#include <gmock/gmock.h>

#include "core/testing/serato_bytes.h"
#include "core/testing/temp_dir.h"

namespace orvel {
namespace {

using testing::Bytes;
using testing::bytesOf;
using testing::concat;
using testing::cueBody;
using ::testing::IsEmpty;
using testing::loopBody;
using testing::markers2Object;
using testing::markersEntry;

SeratoFileTags markers(const Bytes& object) {
  SeratoFileTags tags;
  SeratoFileTags::parseMarkers2(object, tags);
  return tags;
}

SeratoFileTags grid(const Bytes& object) {
  SeratoFileTags tags;
  SeratoFileTags::parseBeatGrid(object, tags);
  return tags;
}

// Markers2 with a colour entry first, as Serato writes it, and an unknown
// entry between the cues.
std::vector<Bytes> typicalEntries() {
  return {markersEntry("COLOR", {0, 0xFF, 0xFF, 0xFF}),
          markersEntry("CUE", cueBody(0, 1500, 0xCC, 0x00, 0x00, "Drop")),
          markersEntry("SOMETHING NEW", Bytes(37, 0xAB)),
          markersEntry("CUE", cueBody(3, 123456, 0x00, 0x88, 0xCC, std::nullopt)),
          markersEntry("LOOP", loopBody(1, 64000, 72000, "Break")),
          markersEntry("BPMLOCK", {0})};
}

TEST(SeratoFileTags, DecodesCuesAndLoopsInPayloadOrderSkippingOtherEntries) {
  const SeratoFileTags tags = markers(markers2Object(typicalEntries()));
  ASSERT_EQ(tags.cues.size(), 2u);
  EXPECT_EQ(tags.cues[0].index, 0);
  EXPECT_EQ(tags.cues[0].positionMs, 1500);
  EXPECT_EQ(tags.cues[0].colorHex, "#CC0000");
  EXPECT_EQ(tags.cues[0].name, "Drop");
  EXPECT_EQ(tags.cues[1].index, 3);
  EXPECT_EQ(tags.cues[1].positionMs, 123456);
  EXPECT_EQ(tags.cues[1].colorHex, "#0088CC");
  EXPECT_FALSE(tags.cues[1].name);  // exactly 12 bytes
  ASSERT_EQ(tags.loops.size(), 1u);
  EXPECT_EQ(tags.loops[0].index, 1);
  EXPECT_EQ(tags.loops[0].startMs, 64000);
  EXPECT_EQ(tags.loops[0].endMs, 72000);
  EXPECT_EQ(tags.loops[0].name, "Break");
  EXPECT_EQ(tags.loops[0].colorHex, "#27AAE1");
  EXPECT_FALSE(tags.loops[0].locked);
  EXPECT_EQ(tags.trackColorHex, "#FFFFFF");
  EXPECT_EQ(tags.bpmLocked, false);
  EXPECT_THAT(tags.gridAnchors, IsEmpty());
}

// Serato now and then leaves one character after the last whole group of
// four; such a tag used to lose every cue and loop in it.
TEST(SeratoFileTags, AStrayCharacterAfterTheBase64KeepsEveryEntry) {
  Bytes payload{0x01, 0x01};
  for (const Bytes& e : {markersEntry("CUE", cueBody(0, 1000, 0xCC, 0, 0, "A")),
                         markersEntry("CUE", cueBody(1, 2000, 0, 0xCC, 0, "B")),
                         markersEntry("CUE", cueBody(2, 3000, 0, 0, 0xCC, "C")),
                         markersEntry("LOOP", loopBody(0, 4000, 8000, "Roll"))})
    payload.insert(payload.end(), e.begin(), e.end());
  payload.push_back(0);
  while (payload.size() % 3 != 0) payload.push_back(0);
  const std::string text = testing::base64(payload) + "A";
  ASSERT_EQ(text.size() % 4, 1u);
  Bytes object{0x01, 0x01};
  for (size_t i = 0; i < text.size(); i += 72) {
    if (i) object.push_back('\n');
    const std::string line = text.substr(i, 72);
    object.insert(object.end(), line.begin(), line.end());
  }
  object.insert(object.end(), 300, 0);
  const SeratoFileTags tags = markers(object);
  ASSERT_EQ(tags.cues.size(), 3u);
  EXPECT_EQ(tags.cues[2].colorHex, "#0000CC");
  ASSERT_EQ(tags.loops.size(), 1u);
  EXPECT_EQ(tags.loops[0].name, "Roll");
}

TEST(SeratoFileTags, LoopNamesColoursAndLocksAsSeratoWritesThem) {
  const SeratoFileTags tags = markers(
      markers2Object({markersEntry("LOOP", loopBody(0, 1000, 2000, "Outro", 0xE1AA27)),
                      markersEntry("LOOP", loopBody(1, 3000, 4000, "Locked Loop", 0x27AAE1, true)),
                      markersEntry("LOOP", loopBody(2, 5000, 6000, "\u00c9t\u00e9")),
                      markersEntry("LOOP", loopBody(3, 7000, 8000, "")),
                      markersEntry("CUE", cueBody(0, 10, 1, 2, 3, ""))}));
  ASSERT_EQ(tags.loops.size(), 4u);
  EXPECT_EQ(tags.loops[0].name, "Outro");
  EXPECT_EQ(tags.loops[0].colorHex, "#E1AA27");
  EXPECT_FALSE(tags.loops[0].locked);
  EXPECT_EQ(tags.loops[1].name, "Locked Loop");
  EXPECT_TRUE(tags.loops[1].locked);
  EXPECT_EQ(tags.loops[2].name, "\u00c9t\u00e9");
  // An empty name reads the same for a loop as for a cue.
  EXPECT_EQ(tags.loops[3].name, "");
  EXPECT_EQ(tags.cues.at(0).name, "");
}

TEST(SeratoFileTags, Markers2TextLayoutDoesNotChangeTheResult) {
  const Bytes wrapped = markers2Object(typicalEntries());
  // The same base64 on one line, without NUL padding.
  Bytes oneLine;
  for (uint8_t b : wrapped)
    if (b != '\n' && b != 0) oneLine.push_back(b);
  // Spaces and CRLFs inside, "=" padding left out, NULs on both ends.
  Bytes spaced{0x01, 0x01, 0, 0};
  for (size_t i = 2; i < oneLine.size(); ++i) {
    spaced.push_back(oneLine[i]);
    if (i % 7 == 0) spaced.insert(spaced.end(), {' ', '\r', '\n'});
  }
  spaced.insert(spaced.end(), 5, 0);
  for (const Bytes& object : {oneLine, spaced}) {
    const SeratoFileTags tags = markers(object);
    ASSERT_EQ(tags.cues.size(), 2u);
    EXPECT_EQ(tags.cues[1].positionMs, 123456);
    EXPECT_EQ(tags.loops.size(), 1u);
  }
}

TEST(SeratoFileTags, EntryBoundariesAndDamagedPayloads) {
  // A loop without its name has none; 9 bytes is not a loop; 11 not a cue.
  const Bytes nameless(loopBody(2, 10, 20, std::nullopt));
  ASSERT_EQ(nameless.size(), 20u);
  auto tags =
      markers(markers2Object({markersEntry("LOOP", nameless), markersEntry("LOOP", Bytes(9, 0)),
                              markersEntry("CUE", Bytes(11, 0))}));
  ASSERT_EQ(tags.loops.size(), 1u);
  EXPECT_FALSE(tags.loops[0].name);
  EXPECT_THAT(tags.cues, IsEmpty());

  // An entry whose length runs past the end ends the walk; earlier cues stay.
  Bytes cut = markersEntry("CUE", cueBody(5, 99, 1, 2, 3, "x"));
  cut.resize(cut.size() - 3);
  tags = markers(markers2Object({markersEntry("CUE", cueBody(4, 42, 1, 2, 3, "kept")), cut}));
  ASSERT_EQ(tags.cues.size(), 1u);
  EXPECT_EQ(tags.cues[0].name, "kept");

  // Not ASCII, not base64, too short: nothing.
  EXPECT_TRUE(markers(Bytes{1, 1, 'Q', 0xC3, 0xA9, 'Q'}).empty());
  EXPECT_TRUE(markers(Bytes{1, 1, 'A', 'B', '*', 'D'}).empty());
  EXPECT_TRUE(markers(Bytes{1, 1}).empty());
}

TEST(SeratoFileTags, BeatGridMarkersCountBeatsUpToTheLastWhichHoldsTheTempo) {
  auto one = grid(testing::beatGridObject({{0.05f, 128.0f}}));
  ASSERT_EQ(one.gridAnchors.size(), 1u);
  EXPECT_FLOAT_EQ(one.gridAnchors[0].positionSec, 0.05f);
  EXPECT_EQ(one.gridAnchors[0].bpm, 128.0);

  // 16 beats in 8 s, 58 in 15 s, then 236 BPM from the last marker on.
  auto three = grid(testing::beatGridObject({{0.5f, 16}, {8.5f, 58}, {23.5f, 236.0f}}));
  ASSERT_EQ(three.gridAnchors.size(), 3u);
  EXPECT_FALSE(three.gridAnchors[0].bpm);
  EXPECT_EQ(three.gridAnchors[0].beatsToNext, 16u);
  EXPECT_EQ(three.gridAnchors[1].beatsToNext, 58u);
  EXPECT_EQ(three.gridAnchors[2].bpm, 236.0);
  const auto& anchors = three.gridAnchors;
  EXPECT_DOUBLE_EQ(*SeratoFileTags::tempoAt(anchors, 0), 120.0);
  EXPECT_DOUBLE_EQ(*SeratoFileTags::tempoAt(anchors, 1), 232.0);
  EXPECT_DOUBLE_EQ(*SeratoFileTags::tempoAt(anchors, 2), 236.0);

  // The count says five, the bytes hold two: two anchors, neither the last.
  Bytes truncated = testing::beatGridObject({{1, 4}, {2, 4}}, 5);
  auto cut = grid(truncated);
  ASSERT_EQ(cut.gridAnchors.size(), 2u);
  EXPECT_FALSE(cut.gridAnchors[1].bpm);
  EXPECT_FALSE(SeratoFileTags::tempoAt(cut.gridAnchors, 1));
  // Two markers at one place give no tempo rather than an infinite one.
  EXPECT_FALSE(
      SeratoFileTags::tempoAt(grid(testing::beatGridObject({{3, 4}, {3, 120}})).gridAnchors, 0));
  // A count of four billion costs nothing without the bytes.
  EXPECT_TRUE(grid(testing::beatGridObject({}, 0xFFFFFFFF)).empty());
  EXPECT_TRUE(grid(Bytes{1, 0, 0, 0, 1}).empty());
}

TEST(SeratoFileTags, ReadTakesBothFramesFromAFileAndIgnoresOthers) {
  orvel::testing::TempDir dir;
  using testing::encodedText;
  auto frame = [](std::string_view description, const Bytes& object) {
    return testing::Id3Frame{
        "GEOB", testing::geobBody(0, encodedText("", 0), encodedText(description, 0), object)};
  };
  const Bytes tag = testing::id3Tag(
      4, {frame("Serato Markers2",
                markers2Object({markersEntry("CUE", cueBody(0, 10, 1, 2, 3, "a"))})),
          frame("Serato Overview", Bytes(100, 1)),
          frame("Serato BeatGrid", testing::beatGridObject({{0.1f, 124}})),
          frame("Serato Markers2",
                markers2Object({markersEntry("CUE", cueBody(1, 20, 1, 2, 3, "b"))}))});
  testing::writeBytes(dir / "t.mp3", concat({tag, Bytes(1000, 0xFF)}));
  const SeratoFileTags tags = SeratoFileTags::read(dir / "t.mp3");
  ASSERT_EQ(tags.cues.size(), 2u);
  EXPECT_EQ(tags.cues[1].name, "b");
  EXPECT_EQ(tags.gridAnchors.size(), 1u);
  EXPECT_TRUE(SeratoFileTags::read(dir / "none.mp3").empty());
}

}  // namespace
}  // namespace orvel
