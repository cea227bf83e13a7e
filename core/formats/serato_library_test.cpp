#include "core/formats/serato_library.h"

#include <gmock/gmock.h>

#include "core/testing/serato_bytes.h"
#include "core/testing/temp_dir.h"

namespace orvel {
namespace {

using testing::Bytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Bytes container(std::string_view tag, const Bytes& inner) {
  Bytes out;
  SeratoTLV::appendBytes(out, tag, inner);
  return out;
}
Bytes text(std::string_view tag, std::string_view value) {
  Bytes out;
  SeratoTLV::appendString(out, tag, value);
  return out;
}
Bytes u32(std::string_view tag, uint32_t value) {
  Bytes out;
  SeratoTLV::appendU32(out, tag, value);
  return out;
}
Bytes raw(std::string_view tag, const Bytes& payload) {
  return container(tag, payload);
}

TEST(SeratoTLV, ChoosesTheValueKindFromTagAndLength) {
  const Bytes data = testing::concat({text("tsng", "Señor 🎵"), u32("uadd", 7), raw("uxxx", {1, 2}),
                                      raw("sbav", {0x01, 0x02}), raw("bhrt", {1}), raw("bxxx", {}),
                                      container("otrk", text("pfil", "a/b.mp3")),
                                      raw("tbad", {0xD8, 0x00}), raw("zzzz", {9})});
  const auto fields = SeratoTLV::parse(data);
  ASSERT_EQ(fields.size(), 9u);
  EXPECT_EQ(fields[0].value.text, "Señor 🎵");
  EXPECT_EQ(fields[1].value.kind, SeratoValue::Kind::u32);
  EXPECT_EQ(fields[1].value.number, 7u);
  EXPECT_EQ(fields[2].value.kind, SeratoValue::Kind::raw);  // a "u" tag of 2 bytes
  EXPECT_EQ(fields[3].value.kind, SeratoValue::Kind::u16);
  EXPECT_EQ(fields[3].value.number, 0x0102u);
  EXPECT_EQ(fields[4].value.kind, SeratoValue::Kind::byte);
  EXPECT_EQ(fields[5].value.kind, SeratoValue::Kind::raw);
  ASSERT_EQ(fields[6].value.kind, SeratoValue::Kind::container);
  EXPECT_EQ(fields[6].value.fields.at(0).value.text, "a/b.mp3");
  EXPECT_EQ(fields[7].value.kind, SeratoValue::Kind::string);
  EXPECT_EQ(fields[7].value.text, "");  // a lone surrogate does not decode
  EXPECT_EQ(fields[8].value.bytes, Bytes{9});
}

TEST(SeratoTLV, TruncationAndHostileNestingEndQuietly) {
  Bytes data = testing::concat({text("tsng", "kept"), text("tart", "lost")});
  data.resize(data.size() - 1);
  EXPECT_EQ(SeratoTLV::parse(data).size(), 1u);
  data = testing::concat({text("tsng", "kept"), Bytes{'t', 0xC3, 'x', 'x', 0, 0, 0, 0}});
  EXPECT_EQ(SeratoTLV::parse(data).size(), 1u);  // a tag that is not ASCII
  EXPECT_THAT(SeratoTLV::parse(Bytes{'o', 'r', 't', 'k', 0, 0, 0}), IsEmpty());

  // Ten thousand nested containers: parsed to the depth limit, not the stack's.
  Bytes nested = text("pfil", "x");
  for (int i = 0; i < 10000; ++i) nested = container("otrk", nested);
  const auto fields = SeratoTLV::parse(nested);
  int depth = 0;
  for (const SeratoValue* v = &fields.at(0).value; v->kind == SeratoValue::Kind::container;
       v = &v->fields.at(0).value)
    ++depth;
  EXPECT_EQ(depth, SeratoTLV::kMaxDepth);
}

class SeratoLibraryTest : public ::testing::Test {
 protected:
  void write(const std::filesystem::path& rel, const Bytes& bytes) {
    testing::writeBytes(dir_ / rel, bytes);
  }
  orvel::testing::TempDir dir_;
};

TEST_F(SeratoLibraryTest, LoadsTracksCratesAndSmartCrates) {
  const Bytes track1 = container(
      "otrk", testing::concat({text("ttyp", "mp3"), text("pfil", "Users/dj/Music/a b.mp3"),
                               text("tsng", "Title"), text("tart", "Artist"),
                               text("tbpm", "124.00"), text("tkey", "Am"), text("tlen", "05:12.40"),
                               u32("uadd", 1700000000), raw("bmis", {0})}));
  const Bytes noPath = container("otrk", text("tsng", "orphan"));
  const Bytes track2 = container("otrk", text("pfil", "/Volumes/USB/c.flac"));
  write("database V2",
        testing::concat({text("vrsn", "2.0/Serato Scratch LIVE Database"), track1, noPath,
                         raw("otrk", {1, 2, 3}), track2, text("tsng", "not a track")}));
  write("Subcrates/Deep%%House%%Vocal.crate",
        testing::concat({text("vrsn", "1.0/Serato ScratchLive Crate"),
                         container("osrt", text("tvcn", "song")),
                         container("otrk", text("ptrk", "Users/dj/Music/a b.mp3")),
                         container("otrk", text("ptrk", "/Volumes/USB/c.flac")),
                         container("otrk", u32("uxxx", 1))}));
  write("Subcrates/Alpha.crate", {});
  write("Subcrates/notes.txt", {1});
  write("SmartCrates/Fast.scrate",
        testing::concat(
            {container("rart", raw("brut", {0})), container("rlut", {}),
             container("rurt", testing::concat({u32("urkt", 15), text("trft", "cond_greq_uint"),
                                                u32("urpt", 124)})),
             container("rurt", testing::concat({u32("urkt", 99), text("trft", "cond_con_str"),
                                                text("trpt", "House")})),
             container("rurt", testing::concat({u32("urkt", 7), text("trft", "")}))}));

  const SeratoLibrary lib = SeratoLibrary::load(dir_.path());
  EXPECT_EQ(lib.version, "2.0/Serato Scratch LIVE Database");
  ASSERT_EQ(lib.tracks.size(), 2u);
  EXPECT_EQ(lib.skippedTrackChunks, 2);  // no path; not a container
  const SeratoTrack& t = lib.tracks[0];
  EXPECT_EQ(t.path, "/Users/dj/Music/a b.mp3");
  EXPECT_EQ(t.title, "Title");
  EXPECT_EQ(t.bpm, "124.00");
  EXPECT_EQ(t.durationText, "05:12.40");
  EXPECT_EQ(t.fileType, "mp3");
  EXPECT_EQ(t.dateAddedUnix, 1700000000u);
  EXPECT_FALSE(t.album);
  EXPECT_EQ(lib.tracks[1].path, "/Volumes/USB/c.flac");

  ASSERT_EQ(lib.crates.size(), 3u);
  EXPECT_THAT(lib.crates[0].nameChain, ElementsAre("Alpha"));
  EXPECT_THAT(lib.crates[0].trackPaths, IsEmpty());
  EXPECT_THAT(lib.crates[1].nameChain, ElementsAre("Deep", "House", "Vocal"));
  EXPECT_THAT(lib.crates[1].trackPaths,
              ElementsAre("/Users/dj/Music/a b.mp3", "/Volumes/USB/c.flac"));
  const SeratoCrate& smart = lib.crates[2];
  EXPECT_TRUE(smart.isSmart);
  EXPECT_FALSE(smart.matchAll);
  EXPECT_TRUE(smart.live);  // an empty container counts as on
  ASSERT_EQ(smart.rules.size(), 2u);
  EXPECT_EQ(smart.rules[0].summary(), "BPM is at least 124");
  EXPECT_EQ(smart.rules[1].summary(), "field 99 contains \u201CHouse\u201D");
}

TEST_F(SeratoLibraryTest, ADatabaseThatCannotBeReadOrIsNotSeratosIsAnError) {
  EXPECT_THROW(SeratoLibrary::load(dir_.path()), SeratoReadError);  // nothing there
  auto refused = [&](const Bytes& bytes, std::string_view why) {
    write("database V2", bytes);
    try {
      SeratoLibrary::load(dir_.path());
      ADD_FAILURE() << "took " << bytes.size() << " bytes for a database";
    } catch (const SeratoReadError& e) {
      EXPECT_THAT(e.what(), ::testing::HasSubstr("database V2"));
      EXPECT_THAT(e.what(), ::testing::HasSubstr(why));
    }
  };
  refused({}, "empty");
  refused(Bytes(4096, 0x5A), "not a Serato database");
  refused(testing::concat({text("vrsn", "1.0/Something Else"), text("tsng", "x")}),
          "not a Serato database");
  std::filesystem::remove(dir_ / "database V2");
  std::filesystem::create_directory(dir_ / "database V2");
  EXPECT_THROW(SeratoLibrary::load(dir_.path()), SeratoReadError);
}

TEST_F(SeratoLibraryTest, CratesAreReadWithoutADatabase) {
  write("Subcrates/Gig.crate", testing::seratoCrate({"Users/dj/a.mp3"}));
  const SeratoLibrary lib = SeratoLibrary::load(dir_.path());
  EXPECT_FALSE(lib.hasDatabase);
  EXPECT_THAT(lib.tracks, IsEmpty());
  ASSERT_EQ(lib.crates.size(), 1u);
  EXPECT_THAT(lib.crates[0].trackPaths, ElementsAre("/Users/dj/a.mp3"));
}

// A "_Serato_" folder at the top of an external drive keeps its paths
// relative to that drive; they used to be read against "/", and every track
// of such a library was missing.
TEST_F(SeratoLibraryTest, PathsOnAnExternalDriveAreFoundOnThatDrive) {
  const auto drive = dir_ / "USB";
  testing::writeBytes(drive / "Music/House/a.mp3", {1});
  testing::writeBytes(drive / "Music/b.flac", {1});
  testing::writeBytes(
      drive / "_Serato_/database V2",
      testing::seratoDatabase({testing::seratoTrackRecord({{"pfil", "Music/House/a.mp3"}}),
                               testing::seratoTrackRecord({{"pfil", "Music/gone.mp3"}})}));
  testing::writeBytes(drive / "_Serato_/Subcrates/Gig.crate",
                      testing::seratoCrate({"Music/b.flac", "Music/House/a.mp3"}));
  const SeratoLibrary lib = SeratoLibrary::load(drive / "_Serato_");
  EXPECT_EQ(lib.volumeRoot, drive.string());
  ASSERT_EQ(lib.tracks.size(), 2u);
  EXPECT_EQ(lib.tracks[0].path, (drive / "Music/House/a.mp3").string());
  EXPECT_EQ(lib.tracks[1].path, (drive / "Music/gone.mp3").string());
  EXPECT_THAT(lib.crates.at(0).trackPaths, ElementsAre((drive / "Music/b.flac").string(),
                                                       (drive / "Music/House/a.mp3").string()));

  // The home library names its files from "/": it stays there.
  const auto home = dir_ / "home";
  const std::string onDisk = (dir_ / "elsewhere/c.mp3").string();
  testing::writeBytes(onDisk, {1});
  testing::writeBytes(home / "Music/_Serato_/database V2",
                      testing::seratoDatabase({testing::seratoTrackRecord({{"pfil", onDisk}})}));
  const SeratoLibrary homeLib = SeratoLibrary::load(home / "Music/_Serato_");
  EXPECT_EQ(homeLib.volumeRoot, "/");
  EXPECT_EQ(homeLib.tracks.at(0).path, onDisk);
}

TEST_F(SeratoLibraryTest, SmartCratesKeepTheirRulesDatesAndListedMembers) {
  Bytes file = testing::seratoSmartCrate({{9, "cond_dnc_str", "Techno", std::nullopt},
                                          {15, "cond_grt_int", std::nullopt, 120u},
                                          {25, "cond_aft_time", std::nullopt, std::nullopt}},
                                         true, true);
  // The date a time rule compares with comes as its own text record.
  Bytes dated;
  SeratoTLV::appendU32(dated, "urkt", 25);
  SeratoTLV::appendString(dated, "trft", "cond_bef_time");
  SeratoTLV::appendString(dated, "trtt", "2024-03-15");
  SeratoTLV::appendBytes(file, "rurt", dated);
  file = testing::concat({file, testing::seratoCrate({"Users/dj/x.mp3", "Users/dj/y.mp3"})});
  write("SmartCrates/Warm%%Up.scrate", file);
  write("database V2", testing::seratoDatabase({}));
  const SeratoLibrary lib = SeratoLibrary::load(dir_.path());
  ASSERT_EQ(lib.crates.size(), 1u);
  const SeratoCrate& crate = lib.crates[0];
  EXPECT_THAT(crate.nameChain, ElementsAre("Warm", "Up"));
  EXPECT_THAT(crate.trackPaths, ElementsAre("/Users/dj/x.mp3", "/Users/dj/y.mp3"));
  ASSERT_EQ(crate.rules.size(), 4u);
  EXPECT_EQ(crate.rules[0].summary(), "Genre does not contain \u201CTechno\u201D");
  EXPECT_EQ(crate.rules[1].summary(), "BPM is greater than 120");
  EXPECT_EQ(crate.rules[3].test(), SeratoSmartRule::Test::before);
  EXPECT_EQ(crate.rules[3].summary(), "Added is before \u201C2024-03-15\u201D");
}

TEST(SeratoSmartRule, DisplayTexts) {
  SeratoSmartRule rule{"cond_lseq_time", 7, std::nullopt, 1600000000u, std::nullopt};
  EXPECT_EQ(rule.summary(), "Artist is before 1600000000");
  rule = {"cond_new_thing", 3, "x", std::nullopt, std::nullopt};
  EXPECT_EQ(rule.summary(), "field 3 cond_new_thing \u201Cx\u201D");
  rule = {"cond_isnot_uint", 15, std::nullopt, std::nullopt, std::nullopt};
  EXPECT_EQ(rule.conditionName(), "is not");
  rule = {"cond_itl_time", 25, "weeks", 2u, std::nullopt};
  EXPECT_EQ(rule.summary(), "Added is in the last 2 weeks");
  EXPECT_EQ(SeratoLibrary::nameChain("A%%%%B.crate"), (std::vector<std::string>{"A", "", "B"}));
}

}  // namespace
}  // namespace orvel
