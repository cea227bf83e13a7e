#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include "core/formats/serato_library.h"
#include "core/testing/serato_bytes.h"
#include "tools/cli/cli_fixture.h"

namespace orvel::cli {
namespace {

using namespace orvel::testing;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class SeratoCliTest : public CliTest {};

TEST_F(SeratoCliTest, TagsPrintsCuesLoopsGridColourAndLocks) {
  const Bytes markers =
      markers2Object({markersEntry("COLOR", {0, 0x99, 0xFF, 0x99}),
                      markersEntry("CUE", cueBody(0, 1500, 0xCC, 0, 0, "Drop")),
                      markersEntry("CUE", cueBody(2, 4000, 0, 0, 0xCC, {})),
                      markersEntry("LOOP", loopBody(1, 8000, 16000, "Roll", 0xE1AA27, true)),
                      markersEntry("BPMLOCK", {1})});
  const Bytes tag =
      id3Tag(3, {{"GEOB", geobBody(0, {0}, encodedText("Serato Markers2", 0), markers)},
                 {"GEOB", geobBody(0, {0}, encodedText("Serato BeatGrid", 0),
                                   beatGridObject({{0.5f, 16}, {8.5f, 128}}))}});
  writeBytes(dir_ / "t.mp3", concat({tag, Bytes(64, 0xFF)}));

  const Result json = orvel({"serato", "tags", (dir_ / "t.mp3").string(), "--json"});
  ASSERT_EQ(json.code, 0) << json.err;
  EXPECT_EQ(json.out,
            R"({"bpmLocked":true,)"
            R"("cues":[{"colorHex":"#CC0000","index":0,"name":"Drop","positionMs":1500.0},)"
            R"({"colorHex":"#0000CC","index":2,"name":null,"positionMs":4000.0}],)"
            R"("gridAnchors":[{"beatsToNext":16,"bpm":null,"positionSec":0.5,"tempo":120.0},)"
            R"({"beatsToNext":null,"bpm":128.0,"positionSec":8.5,"tempo":128.0}],)"
            R"("loops":[{"colorHex":"#E1AA27","endMs":16000.0,"index":1,"locked":true,)"
            R"("name":"Roll","startMs":8000.0}],"trackColorHex":"#99FF99"})"
            "\n");
  const Result text = orvel({"serato", "tags", (dir_ / "t.mp3").string()});
  EXPECT_THAT(text.out, HasSubstr("0:01.500"));
  EXPECT_THAT(text.out, HasSubstr("Roll"));
  EXPECT_THAT(text.out, HasSubstr("track colour #99FF99, beat grid locked"));
  EXPECT_THAT(text.out, HasSubstr("120.00"));
  EXPECT_EQ(orvel({"serato", "tags", (dir_ / "none.mp3").string()}).code, 1);
}

// The _Serato_ folder of an external drive, given as the drive itself: its
// paths are the drive's, and every track is found there.
TEST_F(SeratoCliTest, ImportFindsEveryTrackOfALibraryOnAnExternalDrive) {
  const std::filesystem::path drive = dir_ / "mnt" / "USB";
  std::vector<Bytes> records;
  std::vector<std::string> paths;
  for (int i = 0; i < 12; ++i) {
    const std::string rel = "Music/Set " + std::to_string(i % 3) + "/" + std::to_string(i) + ".mp3";
    writeBytes(drive / rel, Bytes(64, 0xFF));
    records.push_back(seratoTrackRecord({{"pfil", rel}, {"tsng", "T" + std::to_string(i)}}));
    paths.push_back(rel);
  }
  writeBytes(drive / "_Serato_" / "database V2", seratoDatabase(records));
  writeBytes(drive / "_Serato_" / "Subcrates" / "Gig.crate", seratoCrate(paths));

  const Result r = orvel({"serato", "import", drive.string()});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("12 tracks added"));
  EXPECT_THAT(r.out, HasSubstr("a library on the drive at " + drive.string()));
  const json gig = orvelJson({"ls", "--playlist", "Gig"});
  ASSERT_EQ(gig.size(), 12u);
  for (const json& t : gig) {
    EXPECT_THAT(t["path"].get<std::string>(), ::testing::StartsWith(drive.string() + "/Music/"));
    EXPECT_EQ(t["missing"], false) << t["path"];
  }
}

TEST_F(SeratoCliTest, ADatabaseThatIsNotSeratosFailsWithItsReason) {
  const std::filesystem::path serato = dir_ / "_Serato_";
  writeBytes(serato / "database V2", bytesOf("<html>not a database</html>"));
  const Result r = orvel({"serato", "import", serato.string()});
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("not a Serato database"));
  EXPECT_EQ(r.out, "");
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
  const SeratoLibrary lib = SeratoLibrary::load(serato);
  ASSERT_EQ(lib.crates.size(), 1u);
  EXPECT_THAT(lib.crates[0].nameChain, ElementsAre("Sets", "Warm-up"));
  EXPECT_THAT(lib.crates[0].trackPaths,
              ElementsAre("/music/DJ Koze/XTC.mp3", "/music/Floorplan/Never Grow Old.mp3"));
}

Bytes readBytes(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::filesystem::perms permsOf(const std::filesystem::path& file) {
  return std::filesystem::status(file).permissions() & std::filesystem::perms::mask;
}

std::vector<std::string> trackPaths(const std::filesystem::path& serato,
                                    const std::vector<std::string>& chain) {
  for (const SeratoCrate& crate : SeratoLibrary::load(serato).crates)
    if (crate.nameChain == chain) return crate.trackPaths;
  return {"<no such crate>"};
}

// Serato's own crate files are only replaced when asked, with a copy kept; the
// file keeps its mode, and a new one gets the usual mode.
TEST_F(SeratoCliTest, SendNeverReplacesAFileOrvelDidNotWrite) {
  namespace fs = std::filesystem;
  const mode_t umaskBefore = ::umask(022);
  const fs::path serato = dir_ / "_Serato_";
  fs::create_directories(serato / "Subcrates");
  // A new crate file gets the mode any new file gets; a later send keeps the
  // mode the user gave it.
  const fs::path sets = serato / "Subcrates" / "Sets.crate";
  ASSERT_EQ(orvel({"serato", "send", "Sets", "--serato-dir", serato.string()}).code, 0);
  EXPECT_EQ(permsOf(sets), fs::perms(0644));
  fs::permissions(sets, fs::perms(0640));
  ASSERT_EQ(orvel({"serato", "send", "Sets", "--serato-dir", serato.string()}).code, 0);
  EXPECT_EQ(permsOf(sets), fs::perms(0640));

  const fs::path file = serato / "Subcrates" / "Sets%%Warm-up.crate";
  const Bytes theirs = seratoCrate({"/music/new.mp3"});
  writeBytes(file, theirs);
  fs::permissions(file, fs::perms(0640));
  const std::vector<std::string> send = {"serato", "send", "Sets / Warm-up", "--serato-dir",
                                         serato.string()};

  const Result refused = orvel(send);
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err, HasSubstr(file.string() + " was not written by Orvel"));
  EXPECT_THAT(refused.err, HasSubstr("--replace"));
  EXPECT_EQ(readBytes(file), theirs);

  std::vector<std::string> replace = send;
  replace.push_back("--replace");
  const Result replaced = orvel(replace);
  ASSERT_EQ(replaced.code, 0) << replaced.err;
  EXPECT_EQ(readBytes(file.string() + ".bak"), theirs);
  const std::vector<std::string> ours = {"/music/DJ Koze/XTC.mp3",
                                         "/music/Floorplan/Never Grow Old.mp3"};
  EXPECT_EQ(trackPaths(serato, {"Sets", "Warm-up"}), ours);
  EXPECT_EQ(permsOf(file), fs::perms(0640));

  // Serato saving the crate again with the same tracks leaves it Orvel's.
  writeBytes(file, seratoCrate(ours));
  EXPECT_EQ(orvel(send).code, 0);
  EXPECT_EQ(permsOf(file), fs::perms(0640));
  // A track added in Serato makes it the user's again.
  std::vector<std::string> edited = ours;
  edited.push_back("/music/new.mp3");
  writeBytes(file, seratoCrate(edited));
  EXPECT_EQ(orvel(send).code, 1);
  EXPECT_EQ(trackPaths(serato, {"Sets", "Warm-up"}), edited);
  ::umask(umaskBefore);
}

TEST_F(SeratoCliTest, SendRefusesCratesThatWouldShareAFile) {
  namespace fs = std::filesystem;
  const fs::path serato = dir_ / "_Serato_";
  fs::create_directories(serato / "Subcrates");
  {
    Connection conn(dbPath());
    ASSERT_FALSE(conn.execChecked(
        fmt::format("INSERT INTO playlists(id, name, parent_id) VALUES(10, 'Gigs', NULL), "
                    "(11, '2024', 10), (12, 'Gigs%%2024', NULL), (13, 'a/b', NULL), "
                    "(14, 'a-b', NULL);"
                    "INSERT INTO playlist_tracks VALUES(13, {}, 0), (14, {}, 0)",
                    a_, b_)));
  }
  auto send = [&](const std::string& crate) {
    return orvel({"serato", "send", crate, "--serato-dir", serato.string()});
  };
  // Serato reads "Gigs%%2024.crate" as 2024 inside Gigs, whichever was meant.
  for (const std::string crate : {"11", "12"}) {
    const Result r = send(crate);
    EXPECT_EQ(r.code, 1) << crate;
    EXPECT_THAT(r.err, HasSubstr("Gigs%%2024.crate")) << crate;
  }
  EXPECT_FALSE(fs::exists(serato / "Subcrates" / "Gigs%%2024.crate"));

  // A "/" is kept apart from a "-".
  ASSERT_EQ(send("13").code, 0);
  ASSERT_EQ(send("14").code, 0);
  EXPECT_EQ(trackPaths(serato, {"a-b"}),
            std::vector<std::string>{"/music/Moodymann/Shades of Jae.flac"});
  EXPECT_EQ(trackPaths(serato, {"a:b"}),
            std::vector<std::string>{"/music/Floorplan/Never Grow Old.mp3"});
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
