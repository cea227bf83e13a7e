#include "core/formats/id3_reader.h"

#include <gmock/gmock.h>

#include "core/testing/serato_bytes.h"
#include "core/testing/temp_dir.h"

namespace orvel {
namespace {

using testing::Bytes;
using testing::concat;
using ::testing::ElementsAre;
using testing::encodedText;
using testing::geobBody;
using testing::id3Tag;
using ::testing::IsEmpty;

Bytes geob(std::string_view description, const Bytes& object, uint8_t encoding = 0) {
  return geobBody(encoding, encodedText("f.bin", encoding), encodedText(description, encoding),
                  object);
}

std::vector<GEOBFrame> scan(const Bytes& tag) {
  const std::span<const uint8_t> all(tag);
  return ID3Reader::geobFrames(all.first(std::min<size_t>(10, all.size())),
                               all.size() > 10 ? all.subspan(10) : std::span<const uint8_t>());
}

std::vector<std::string> descriptions(const std::vector<GEOBFrame>& frames) {
  std::vector<std::string> out;
  for (const auto& f : frames) out.push_back(f.description);
  return out;
}

TEST(ID3Reader, FindsGeobFramesInEveryVersionInTagOrder) {
  const Bytes other{1, 'x', 'y', 0};
  for (uint8_t version : {3, 4}) {
    const Bytes tag = id3Tag(version,
                             {{"GEOB", geob("Serato Markers2", {1, 2, 3})},
                              {"TIT2", other},
                              {"GEOB", geob("Serato BeatGrid", {})}},
                             0, {}, 32);
    const auto frames = scan(tag);
    ASSERT_EQ(frames.size(), 2u) << int{version};
    EXPECT_EQ(frames[0].description, "Serato Markers2");
    EXPECT_EQ(frames[0].object, (Bytes{1, 2, 3}));
    EXPECT_EQ(frames[1].description, "Serato BeatGrid");
    EXPECT_THAT(frames[1].object, IsEmpty());
  }
  // 2.2: three-letter ids, 24-bit sizes, no flags; "GEOB" means nothing there.
  const Bytes v22 = id3Tag(2, {{"GEO", geob("Serato Markers2", {9})}, {"TT2", other}});
  EXPECT_THAT(descriptions(scan(v22)), ElementsAre("Serato Markers2"));
}

TEST(ID3Reader, DecodesDescriptionsInAllFourEncodings) {
  const Bytes latin1 = geobBody(0, {0}, {'C', 'a', 'f', 0xE9, 0}, {7});
  const Bytes utf8 = geobBody(3, {0}, {'C', 'a', 'f', 0xC3, 0xA9, 0}, {7});
  const Bytes utf16bom = geob("Serato Markers2", {7}, 1);
  const Bytes utf16be = geob("Serato Markers2", {7}, 2);
  // A lone high surrogate does not decode: the frame stays, its text is empty.
  const Bytes broken = geobBody(2, {0, 0}, {0xD8, 0x00, 0, 'a', 0, 0}, {7});
  const auto frames = scan(id3Tag(
      3,
      {{"GEOB", latin1}, {"GEOB", utf8}, {"GEOB", utf16bom}, {"GEOB", utf16be}, {"GEOB", broken}}));
  EXPECT_THAT(descriptions(frames),
              ElementsAre("Café", "Café", "Serato Markers2", "Serato Markers2", ""));
  for (const auto& f : frames) EXPECT_EQ(f.object, Bytes{7});
}

// What a writer stores when it unsynchronises: a 0x00 after every 0xFF.
Bytes unsynchronise(const Bytes& plain) {
  Bytes out;
  for (uint8_t b : plain) {
    out.push_back(b);
    if (b == 0xFF) out.push_back(0x00);
  }
  return out;
}

// The tag with its whole body unsynchronised and the flag set.
Bytes unsynchronisedTag(const Bytes& tag) {
  const Bytes body = unsynchronise(Bytes(tag.begin() + 10, tag.end()));
  Bytes header(tag.begin(), tag.begin() + 6);
  header[5] |= 0x80;
  return concat({header, testing::synchsafe(static_cast<uint32_t>(body.size())), body});
}

TEST(ID3Reader, UndoesTagAndFrameUnsynchronisation) {
  const Bytes plain{0xFF, 0xE0, 0xFF, 0x00, 0x42};
  const Bytes stored = unsynchronise(plain);
  for (uint8_t version : {2, 3, 4}) {
    const std::string id = version == 2 ? "GEO" : "GEOB";
    const auto frames = scan(unsynchronisedTag(id3Tag(version, {{id, geob("d", plain)}})));
    ASSERT_EQ(frames.size(), 1u) << int{version};
    EXPECT_EQ(frames[0].object, plain);
  }
  auto frames = scan(id3Tag(4, {{"GEOB", geob("d", stored), 0x02}}));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].object, plain);
  // Both in 2.4: undone twice, the tag's layer first.
  frames = scan(unsynchronisedTag(id3Tag(4, {{"GEOB", geob("d", stored), 0x02}})));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].object, plain);
  // In 2.3 the frame flag means nothing.
  frames = scan(id3Tag(3, {{"GEOB", geob("d", stored), 0x02}}));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].object, stored);
  EXPECT_EQ(ID3Reader::deunsync(Bytes{0xFF, 0x00, 0x00}), (Bytes{0xFF, 0x00}));
}

TEST(ID3Reader, SkipsTheExtendedHeaderByEachVersionsRule) {
  const Bytes frame = geob("Serato BeatGrid", {5});
  // 2.3: big-endian size that leaves out its own four bytes.
  const Bytes ext3 = concat({testing::u32be(6), Bytes(6, 0xAA)});
  EXPECT_THAT(descriptions(scan(id3Tag(3, {{"GEOB", frame}}, 0x40, ext3))),
              ElementsAre("Serato BeatGrid"));
  // 2.4: synchsafe size that includes them.
  const Bytes ext4 = concat({testing::synchsafe(8), Bytes(4, 0xAA)});
  EXPECT_THAT(descriptions(scan(id3Tag(4, {{"GEOB", frame}}, 0x40, ext4))),
              ElementsAre("Serato BeatGrid"));
  // A size beyond the body leaves nothing to scan.
  const Bytes huge = concat({testing::u32be(0x7FFFFFF0), Bytes(4, 0xAA)});
  EXPECT_THAT(scan(id3Tag(3, {{"GEOB", frame}}, 0x40, huge)), IsEmpty());
}

TEST(ID3Reader, ReadsFrameSizesAsTheVersionEncodesThem) {
  // 200 bytes of object: the size's last byte is 0xC8 or more.
  const Bytes body = geob("d", Bytes(200, 0x42));
  const auto v3 = scan(id3Tag(3, {{"GEOB", body}}));
  ASSERT_EQ(v3.size(), 1u);
  EXPECT_EQ(v3[0].object.size(), 200u);
  // The same four size bytes in 2.4 are synchsafe: 0x00 0x00 0x00 0xDB -> 0x5B.
  const uint32_t plainSize = static_cast<uint32_t>(body.size());
  Bytes tag = id3Tag(4, {{"GEOB", body}});
  const Bytes raw = testing::u32be(plainSize);
  std::copy(raw.begin(), raw.end(), tag.begin() + 14);
  const auto v4 = scan(tag);
  ASSERT_EQ(v4.size(), 1u);
  EXPECT_EQ(v4[0].object.size(), (plainSize & 0x7F) - (body.size() - 200));
}

TEST(ID3Reader, StopsAtPaddingZeroSizesAndOverrunsKeepingWhatCameFirst) {
  const Bytes a = geob("a", {1});
  const Bytes b = geob("b", {2});
  EXPECT_THAT(scan(id3Tag(3, {{"TXXX", {0}, 0, 0}, {"GEOB", a}})), IsEmpty());
  EXPECT_THAT(descriptions(scan(id3Tag(3, {{"GEOB", a}, {"GEOB", b, 0, 5000}}))), ElementsAre("a"));
  EXPECT_THAT(scan(id3Tag(3, {{"\xC3\xA9X", {1, 2}}, {"GEOB", a}})), IsEmpty());
  // Malformed GEOB bodies are skipped one by one.
  EXPECT_THAT(
      descriptions(scan(id3Tag(
          3, {{"GEOB", {0, 'a', 'b', 'c'}}, {"GEOB", {0, 'a', 'b', 'c', 'd'}}, {"GEOB", b}}))),
      ElementsAre("b"));
}

TEST(ID3Reader, RefusesAnythingButAUsableLeadingTag) {
  EXPECT_FALSE(ID3Reader::tagSize(Bytes{'I', 'D', '3', 3, 0, 0, 0, 0, 0}));
  EXPECT_FALSE(ID3Reader::tagSize(Bytes{'I', 'D', '2', 3, 0, 0, 0, 0, 0, 9}));
  EXPECT_FALSE(ID3Reader::tagSize(Bytes{'I', 'D', '3', 3, 0, 0, 0, 0, 0, 0}));
  EXPECT_FALSE(ID3Reader::tagSize(Bytes{'I', 'D', '3', 3, 0, 0, 0x20, 0, 0, 0}));
  EXPECT_EQ(ID3Reader::tagSize(Bytes{'I', 'D', '3', 3, 0, 0, 0x1F, 0x7F, 0x7F, 0x7F}),
            ID3Reader::kMaxTagSize - 1);

  orvel::testing::TempDir dir;
  const Bytes frame = geob("Serato Markers2", {1});
  Bytes oversized = id3Tag(3, {{"GEOB", frame}});
  oversized[6] = 0x20;  // claims 64 MiB; the bytes are there all the same
  testing::writeBytes(dir / "big.mp3", oversized);
  EXPECT_THAT(ID3Reader::geobFrames(dir / "big.mp3"), IsEmpty());
  testing::writeBytes(dir / "short.mp3", Bytes{'I', 'D', '3', 3});
  EXPECT_THAT(ID3Reader::geobFrames(dir / "short.mp3"), IsEmpty());
  EXPECT_THAT(ID3Reader::geobFrames(dir / "absent.mp3"), IsEmpty());
  EXPECT_THAT(ID3Reader::geobFrames(dir.path()), IsEmpty());  // a folder

  // Audio after the tag is never read as frames; a file cut inside its tag
  // gives the frames that fit.
  const Bytes tag = id3Tag(3, {{"GEOB", frame}, {"GEOB", geob("second", Bytes(64, 9))}});
  testing::writeBytes(dir / "song.mp3", concat({tag, Bytes{'I', 'D', '3', 3}, Bytes(500, 0xFF)}));
  EXPECT_THAT(descriptions(ID3Reader::geobFrames(dir / "song.mp3")),
              ElementsAre("Serato Markers2", "second"));
  testing::writeBytes(dir / "cut.mp3", Bytes(tag.begin(), tag.end() - 20));
  EXPECT_THAT(descriptions(ID3Reader::geobFrames(dir / "cut.mp3")), ElementsAre("Serato Markers2"));
}

TEST(ID3Reader, ReadStringClampsAndParseGeobNeedsAMimeTerminator) {
  EXPECT_EQ(ID3Reader::readString(Bytes{'a', 'b', 0, 'c'}, 0, 0),
            std::make_pair(std::string("ab"), size_t{3}));
  EXPECT_EQ(ID3Reader::readString(Bytes{'a', 'b'}, 0, 3),
            std::make_pair(std::string("ab"), size_t{2}));
  // UTF-16 terminators sit at an even distance: "\0a\0\0" is 'a' then the end.
  EXPECT_EQ(ID3Reader::readString(Bytes{0, 'a', 0, 0, 9}, 0, 2),
            std::make_pair(std::string("a"), size_t{4}));
  EXPECT_EQ(ID3Reader::readString(Bytes{0xFF}, 0, 3).first, "");  // not UTF-8
  EXPECT_FALSE(ID3Reader::parseGEOB(Bytes{0, 'a', 0, 0}));
  EXPECT_FALSE(ID3Reader::parseGEOB(Bytes{0, 'a', 'b', 'c', 'd'}));
  const auto bare = ID3Reader::parseGEOB(Bytes{0, 'm', 0, 0, 0});
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->description, "");
  EXPECT_THAT(bare->object, IsEmpty());
}

}  // namespace
}  // namespace orvel
