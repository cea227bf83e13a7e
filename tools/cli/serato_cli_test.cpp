#include <fstream>

#include "core/formats/serato_library.h"
#include "core/testing/serato_bytes.h"
#include "tools/cli/cli_fixture.h"

namespace orvel::cli {
namespace {

using namespace orvel::testing;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class SeratoCliTest : public CliTest {};

TEST_F(SeratoCliTest, TagsPrintsCuesLoopsAndGridWithNullsForAbsentValues) {
  const Bytes markers = markers2Object({markersEntry("CUE", cueBody(0, 1500, 0xCC, 0, 0, "Drop")),
                                        markersEntry("CUE", cueBody(2, 4000, 0, 0, 0xCC, {})),
                                        markersEntry("LOOP", loopBody(1, 8000, 16000, "Roll"))});
  const Bytes tag =
      id3Tag(3, {{"GEOB", geobBody(0, {0}, encodedText("Serato Markers2", 0), markers)},
                 {"GEOB", geobBody(0, {0}, encodedText("Serato BeatGrid", 0),
                                   beatGridObject({{0.5f, 16}, {8.5f, 128}}))}});
  writeBytes(dir_ / "t.mp3", concat({tag, Bytes(64, 0xFF)}));

  const Result json = orvel({"serato", "tags", (dir_ / "t.mp3").string(), "--json"});
  ASSERT_EQ(json.code, 0) << json.err;
  EXPECT_EQ(json.out,
            R"({"cues":[{"colorHex":"#CC0000","index":0,"name":"Drop","positionMs":1500.0},)"
            R"({"colorHex":"#0000CC","index":2,"name":null,"positionMs":4000.0}],)"
            R"("gridAnchors":[{"bpm":null,"positionSec":0.5},{"bpm":128.0,"positionSec":8.5}],)"
            R"("loops":[{"endMs":16000.0,"index":1,"name":"Roll","startMs":8000.0}]})"
            "\n");
  const Result text = orvel({"serato", "tags", (dir_ / "t.mp3").string()});
  EXPECT_THAT(text.out, HasSubstr("0:01.500"));
  EXPECT_THAT(text.out, HasSubstr("Roll"));
  EXPECT_EQ(orvel({"serato", "tags", (dir_ / "none.mp3").string()}).code, 1);
}

TEST_F(SeratoCliTest, ImportReadsTheDefaultFolderThenReportsUpToDate) {
  EXPECT_THAT(orvel({"serato", "import"}).err, HasSubstr("No Serato library on this Mac"));
  const std::filesystem::path serato =
      std::filesystem::path(std::getenv("HOME")) / "Music" / "_Serato_";
  writeBytes(serato / "database V2",
             seratoDatabase({seratoTrackRecord({{"pfil", "music/DJ Koze/XTC.mp3"}}),
                             seratoTrackRecord({{"pfil", "music/new.mp3"}, {"tsng", "New"}})}));
  writeBytes(serato / "Subcrates" / "Peak%%Late.crate",
             seratoCrate({"/music/new.mp3", "/music/DJ Koze/XTC.mp3"}));

  const Result first = orvel({"serato", "import"});
  ASSERT_EQ(first.code, 0) << first.err;
  EXPECT_EQ(first.out, "Read from Serato: 1 track added, 2 crates, 2 crate links\n");
  const json again = orvelJson({"serato", "import", serato.string()});
  EXPECT_EQ(again["outcome"], "upToDate");
  EXPECT_EQ(again["message"], "Serato is already up to date");
  const json members = orvelJson({"ls", "--playlist", "Peak / Late"});
  ASSERT_EQ(members.size(), 2u);
  EXPECT_EQ(members[1]["id"], c_);
}

TEST_F(SeratoCliTest, SendWritesACrateThatReadsBackInOrder) {
  const std::filesystem::path serato = dir_ / "_Serato_";
  const Result refused = orvel({"serato", "send", "2", "--serato-dir", serato.string()});
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err, HasSubstr("Serato is not installed on this Mac"));

  std::filesystem::create_directories(serato / "Subcrates");
  const Result sent = orvel({"serato", "send", "Sets / Warm-up", "--serato-dir", serato.string()});
  ASSERT_EQ(sent.code, 0) << sent.err;
  writeBytes(serato / "database V2", {});
  const SeratoLibrary lib = SeratoLibrary::load(serato);
  ASSERT_EQ(lib.crates.size(), 1u);
  EXPECT_THAT(lib.crates[0].nameChain, ElementsAre("Sets", "Warm-up"));
  EXPECT_THAT(lib.crates[0].trackPaths,
              ElementsAre("/music/DJ Koze/XTC.mp3", "/music/Floorplan/Never Grow Old.mp3"));
}

TEST_F(SeratoCliTest, ExportXmlWritesTheCollectionOfTheChosenCrates) {
  const std::string file = (dir_ / "set.xml").string();
  const Result r = orvel({"export", "xml", file, "--crate", "Sets"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "Exported 2 tracks in 1 playlist to " + file + "\n");
  std::ifstream in(file);
  const std::string xml((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_THAT(xml, HasSubstr("<DJ_PLAYLISTS"));
  EXPECT_THAT(xml, HasSubstr("Never%20Grow%20Old.mp3"));
  EXPECT_EQ(orvel({"export", "xml", (dir_ / "set.txt").string()}).code, 1);
  EXPECT_EQ(orvel({"export", "xml", file, "--crate", "No such"}).code, 1);
}

}  // namespace
}  // namespace orvel::cli
