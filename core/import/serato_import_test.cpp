#include "core/import/serato_import.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "core/formats/serato_tags.h"
#include "core/testing/audio_files.h"
#include "core/testing/serato_bytes.h"
#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using namespace orvel::testing;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace std::string_literals;

// A track file as Serato leaves it: an ID3 tag with its cues and grid, then
// (stand-in) audio.
Bytes taggedFile(const std::vector<Bytes>& markerEntries,
                 const std::vector<std::pair<float, float>>& gridMarkers) {
  std::vector<Id3Frame> frames;
  frames.push_back({"GEOB", geobBody(0, encodedText("", 0), encodedText("Serato Markers2", 0),
                                     markers2Object(markerEntries))});
  if (!gridMarkers.empty())
    frames.push_back({"GEOB", geobBody(0, encodedText("", 0), encodedText("Serato BeatGrid", 0),
                                       beatGridObject(gridMarkers))});
  return concat({id3Tag(4, frames), Bytes(4096, 0xFF)});
}

class SeratoImportTest : public StoreTest {
 protected:
  std::filesystem::path serato() const { return dir_ / "Music" / "_Serato_"; }
  std::string music(const std::string& name) const { return (dir_ / "Music" / name).string(); }

  // Two tracks with files, one whose file is gone, and a crate member Serato
  // knows only by path.
  void writeLibrary() {
    writeBytes(music("a.mp3"),
               taggedFile({markersEntry("CUE", cueBody(0, 1500, 0xCC, 0, 0, "Drop")),
                           markersEntry("LOOP", loopBody(0, 30000, 38000, "Break"))},
                          {{0.25f, 32}, {16.25f, 126}}));
    writeBytes(music("b.mp3"), Bytes(100, 0xFF));
    writeBytes(
        serato() / "database V2",
        seratoDatabase({seratoTrackRecord({{"pfil", music("a.mp3").substr(1)},
                                           {"tsng", "Serato title"},
                                           {"tgen", "House\0"s},
                                           {"tbpm", "126.00"},
                                           {"tlen", "05:12.50"},
                                           {"tbit", "320.0kbps"},
                                           {"tsmp", "44.1k"},
                                           {"ttyp", "mp3"}},
                                          1600000000),
                        seratoTrackRecord({{"pfil", music("b.mp3")}, {"tsng", "B"}}),
                        seratoTrackRecord({{"pfil", music("gone.mp3")}, {"tsng", "Gone"}})}));
    writeBytes(serato() / "Subcrates" / "Deep%%House%%Vocal.crate",
               seratoCrate({music("b.mp3"), music("a.mp3"), "/Volumes/USB/elsewhere.mp3"}));
    writeBytes(serato() / "Subcrates" / "Deep.crate", seratoCrate({music("a.mp3")}));
    writeBytes(serato() / "SmartCrates" / "Fast.scrate",
               seratoSmartCrate({{15, "cond_greq_uint", {}, 124}, {7, "cond_con_str", "Ben", {}}},
                                true, false));
  }

  // The members' paths in crate order.
  std::vector<std::string> memberPaths(int64_t playlist) {
    std::vector<std::string> out;
    for (int64_t id : db().playlists().orderedTrackIds(playlist))
      out.emplace_back(db().tracks().loadTrack(id)->path());
    return out;
  }
  std::vector<std::string> seratoCues(int64_t track) {
    std::vector<std::string> out;
    for (const CueRow& c : db().cues().cues(track))
      if (c.sourceId)
        out.push_back(fmt::format("{} {} @{} +{} {} {}", c.kind, c.index, c.positionMs,
                                  c.lengthMs.value_or(0), c.color, c.name));
    return out;
  }
};

TEST_F(SeratoImportTest, FoldsTracksCratesAndFileTagsThenIsUpToDate) {
  // The user already has a.mp3, with a title of their own and a cue.
  const int64_t a = add(music("a.mp3"), "My title");
  ASSERT_TRUE(db().cues().addManualCue(a, 999));
  writeLibrary();

  const SeratoImportResult first = readFromSerato(db(), serato());
  ASSERT_EQ(first.outcome, SeratoImportResult::Outcome::updated) << first.message;
  EXPECT_EQ(first.counts.tracksAdded, 2);
  EXPECT_EQ(first.counts.tracksFilled, 1);
  EXPECT_EQ(first.counts.ghosts, 1);
  EXPECT_EQ(first.counts.cratesAdded, 4);  // Deep, House, Vocal, Fast
  EXPECT_EQ(first.counts.addedLinks, 4);
  EXPECT_EQ(first.counts.tagsStored, 1);
  EXPECT_EQ(first.filesRead, 2);
  EXPECT_THAT(first.message, HasSubstr("2 tracks added"));

  // Never over the user's value; empty fields filled, NUL-terminated text tidied.
  EXPECT_EQ(field(a, "title"), "My title");
  EXPECT_EQ(field(a, "genre"), "House");
  EXPECT_EQ(field(a, "bpm"), "126.0");
  EXPECT_EQ(field(a, "duration_ms"), "312500");
  const int64_t b = *db().tracks().trackId(music("b.mp3"));
  EXPECT_EQ(field(b, "title"), "B");
  EXPECT_EQ(field(b, "file_missing"), "0");
  EXPECT_EQ(field(*db().tracks().trackId(music("gone.mp3")), "file_missing"), "1");
  EXPECT_EQ(field(*db().tracks().trackId("/Volumes/USB/elsewhere.mp3"), "file_missing"), "1");

  // The tree and the members in crate order.
  const auto vocal = db().playlists().playlistByPath("Deep / House / Vocal");
  ASSERT_TRUE(vocal);
  EXPECT_EQ(db().playlists().playlistKind(*vocal), "crate");
  EXPECT_THAT(memberPaths(*vocal),
              ElementsAre(music("b.mp3"), music("a.mp3"), "/Volumes/USB/elsewhere.mp3"));
  EXPECT_THAT(memberPaths(*db().playlists().playlistByPath("Deep")), ElementsAre(music("a.mp3")));
  const auto fast = db().playlists().playlistByPath("Fast");
  ASSERT_TRUE(fast);
  Statement smart = db().prepare("SELECT smart_criteria, smart_info FROM playlists WHERE id = ?");
  ASSERT_TRUE(smart.bind(1, *fast).step());
  EXPECT_EQ(smart.text(0), "BPM is at least 124 AND Artist contains \u201CBen\u201D");
  EXPECT_EQ(smart.text(1), "serato-smart");

  // Serato's cues beside the user's; the grid's first stretch holds 32 beats
  // in 16 s, so 120 BPM.
  EXPECT_THAT(seratoCues(a),
              ElementsAre("cue 0 @1500 +0 #CC0000 Drop", "loop 0 @30000 +8000 #27AAE1 Break"));
  EXPECT_EQ(db().cues().cues(a).size(), 3u);
  const auto source = db().serato().seratoSourceId().optional();
  const auto grid = db().cues().beatGrid(a, source);
  ASSERT_EQ(grid.size(), 2u);
  EXPECT_DOUBLE_EQ(grid[0].posMs, 250);
  EXPECT_DOUBLE_EQ(grid[0].bpm, 120);
  EXPECT_DOUBLE_EQ(grid[1].posMs, 16250);
  EXPECT_DOUBLE_EQ(grid[1].bpm, 126);

  const int64_t rows = db().count("tracks");
  const SeratoImportResult second = readFromSerato(db(), serato());
  EXPECT_EQ(second.outcome, SeratoImportResult::Outcome::upToDate);
  EXPECT_EQ(second.message, kSeratoUpToDate);
  EXPECT_EQ(db().count("tracks"), rows);
  EXPECT_EQ(db().playlists().orderedTrackIds(*vocal).size(), 3u);

  // Serato moved the cue: only that file's Serato cues are replaced.
  writeBytes(music("a.mp3"),
             taggedFile({markersEntry("CUE", cueBody(0, 2500, 0, 0xCC, 0, "Drop"))}, {}));
  const SeratoImportResult third = readFromSerato(db(), serato());
  EXPECT_EQ(third.counts.tagsStored, 1);
  EXPECT_EQ(third.message, "Read from Serato: cues and grids from 1 file");
  EXPECT_THAT(seratoCues(a), ElementsAre("cue 0 @2500 +0 #00CC00 Drop"));
  EXPECT_TRUE(db().cues().beatGrid(a, source).empty());
  EXPECT_EQ(db().cues().cues(a).size(), 2u);  // the user's cue is still there
}

TEST_F(SeratoImportTest, ReportsAMissingOrUnreadableLibrary) {
  auto result = readFromSerato(db(), serato());
  EXPECT_EQ(result.outcome, SeratoImportResult::Outcome::noLibrary);
  EXPECT_EQ(result.message, "No Serato library on this Mac");
  std::filesystem::create_directories(serato() / "database V2");
  result = readFromSerato(db(), serato());
  EXPECT_EQ(result.outcome, SeratoImportResult::Outcome::failed);
  EXPECT_THAT(result.message, HasSubstr("Could not read Serato: "));
  EXPECT_EQ(db().count("playlists"), 0);
}

// Serato's smart crates used to arrive with no members at all. Rules that
// map onto Orvel's fields now run as Orvel's own smart rules.
TEST_F(SeratoImportTest, SmartCratesGetTheMembersTheirRulesImplyAndStayLive) {
  const int64_t fastHouse = add(music("fast house.mp3"), "Fast house");
  const int64_t slowHouse = add(music("slow house.mp3"), "Slow house");
  const int64_t fastTechno = add(music("fast techno.mp3"), "Fast techno");
  for (auto [id, genre, bpm] : {std::tuple{fastHouse, "Deep House", "126"},
                                {slowHouse, "House", "118"},
                                {fastTechno, "Techno", "130"}}) {
    ASSERT_TRUE(db().tracks().writeField("genre", genre, std::vector<int64_t>{id}));
    ASSERT_TRUE(db().tracks().writeField("bpm", bpm, std::vector<int64_t>{id}));
  }
  writeBytes(serato() / "database V2", seratoDatabase({}));
  // Serato's own list is stale: it names the slow track only.
  writeBytes(
      serato() / "SmartCrates" / "Peak.scrate",
      concat({seratoSmartCrate({{15, "cond_greq_uint", {}, 124}, {9, "cond_con_str", "house", {}}},
                               true, true),
              seratoCrate({music("slow house.mp3")})}));
  // A rule on a field Orvel does not keep: Serato's list is what it has.
  writeBytes(serato() / "SmartCrates" / "Remixes.scrate",
             concat({seratoSmartCrate({{20, "cond_con_str", "Edit", {}}}, true, true),
                     seratoCrate({music("fast techno.mp3")})}));

  const SeratoImportResult r = readFromSerato(db(), serato());
  ASSERT_EQ(r.outcome, SeratoImportResult::Outcome::updated) << r.message;
  const int64_t peak = *db().playlists().playlistByPath("Peak");
  EXPECT_THAT(db().playlists().orderedTrackIds(peak), ElementsAre(fastHouse));
  EXPECT_THAT(db().playlists().orderedTrackIds(*db().playlists().playlistByPath("Remixes")),
              ElementsAre(fastTechno));
  EXPECT_EQ(readFromSerato(db(), serato()).outcome, SeratoImportResult::Outcome::upToDate);

  // Live: a track that comes to match joins when the crate is next shown.
  ASSERT_TRUE(db().tracks().writeField("bpm", "124", std::vector<int64_t>{slowHouse}));
  const auto fresh = db().smart().refreshSmartPlaylist(peak);
  ASSERT_TRUE(fresh);
  EXPECT_THAT(*fresh, ::testing::UnorderedElementsAre(fastHouse, slowHouse));
}

// A crate member Serato's database does not list, but whose file is there,
// used to become a placeholder marked missing with no tags read.
TEST_F(SeratoImportTest, FilesOnlyACrateNamesComeInWithTheirTags) {
  AudioTags tags;
  tags.title = "Tagged title";
  tags.artist = "Tagged artist";
  writeAudioFile(music("crate only.mp3"), AudioFormat::mp3, tags);
  writeBytes(serato() / "database V2", seratoDatabase({}));
  writeBytes(serato() / "Subcrates" / "Gig.crate",
             seratoCrate({music("crate only.mp3"), music("not here.mp3")}));
  const SeratoImportResult r = readFromSerato(db(), serato());
  ASSERT_EQ(r.outcome, SeratoImportResult::Outcome::updated) << r.message;
  EXPECT_EQ(r.counts.tracksAdded, 1);
  EXPECT_EQ(r.counts.ghosts, 1);
  const int64_t id = *db().tracks().trackId(music("crate only.mp3"));
  EXPECT_EQ(field(id, "title"), "Tagged title");
  EXPECT_EQ(field(id, "artist"), "Tagged artist");
  EXPECT_EQ(field(id, "file_missing"), "0");
  EXPECT_NE(field(id, "duration_ms"), "");
  EXPECT_EQ(field(*db().tracks().trackId(music("not here.mp3")), "file_missing"), "1");
}

TEST_F(SeratoImportTest, ALibraryOnAnExternalDriveFindsEveryTrack) {
  const auto drive = dir_ / "Volumes" / "USB";
  writeBytes(drive / "Music/a.mp3",
             taggedFile({markersEntry("CUE", cueBody(0, 1500, 0xCC, 0, 0, "Drop"))}, {}));
  writeBytes(drive / "Music/b.mp3", Bytes(100, 0xFF));
  writeBytes(drive / "_Serato_/database V2",
             seratoDatabase({seratoTrackRecord({{"pfil", "Music/a.mp3"}, {"tsng", "A"}}),
                             seratoTrackRecord({{"pfil", "Music/b.mp3"}, {"tsng", "B"}})}));
  writeBytes(drive / "_Serato_/Subcrates/Gig.crate", seratoCrate({"Music/b.mp3", "Music/a.mp3"}));
  const SeratoImportResult r = readFromSerato(db(), drive / "_Serato_");
  ASSERT_EQ(r.outcome, SeratoImportResult::Outcome::updated) << r.message;
  EXPECT_THAT(r.message, HasSubstr(drive.string()));
  EXPECT_EQ(r.counts.ghosts, 0);
  EXPECT_EQ(r.filesRead, 2);
  for (const char* name : {"Music/a.mp3", "Music/b.mp3"}) {
    const auto id = db().tracks().trackId((drive / name).string());
    ASSERT_TRUE(id) << name;
    EXPECT_EQ(field(*id, "file_missing"), "0");
  }
  EXPECT_THAT(memberPaths(*db().playlists().playlistByPath("Gig")),
              ElementsAre((drive / "Music/b.mp3").string(), (drive / "Music/a.mp3").string()));
  EXPECT_EQ(seratoCues(*db().tracks().trackId((drive / "Music/a.mp3").string())).size(), 1u);
}

TEST_F(SeratoImportTest, GarbageUnderTheDatabaseNameFailsAndCratesAloneStillRead) {
  writeBytes(serato() / "database V2", Bytes(2048, 0x3C));
  writeBytes(serato() / "Subcrates" / "Gig.crate", seratoCrate({music("x.mp3")}));
  SeratoImportResult r = readFromSerato(db(), serato());
  EXPECT_EQ(r.outcome, SeratoImportResult::Outcome::failed);
  EXPECT_THAT(r.message, HasSubstr("not a Serato database"));
  EXPECT_EQ(db().count("playlists"), 0);

  std::filesystem::remove(serato() / "database V2");
  r = readFromSerato(db(), serato());
  ASSERT_EQ(r.outcome, SeratoImportResult::Outcome::updated) << r.message;
  EXPECT_THAT(r.message, HasSubstr("no database V2"));
  EXPECT_TRUE(db().playlists().playlistByPath("Gig"));
}

TEST(SeratoGrid, AnchorsTakeTheirTempoFromTheBeatsToTheNext) {
  const std::vector<SeratoGridAnchor> anchors{
      {0.5, std::nullopt, 64}, {30.5, std::nullopt, 16}, {38.5, 124.0, std::nullopt}};
  const auto grid = SeratoStore::gridFromSerato(anchors);
  ASSERT_EQ(grid.size(), 3u);
  EXPECT_DOUBLE_EQ(grid[0].bpm, 128);
  EXPECT_DOUBLE_EQ(grid[1].bpm, 120);
  EXPECT_DOUBLE_EQ(grid[2].bpm, 124);
  // Damaged markers (NaN, a stretch of zero length) fall back to the tempo
  // the grid ends with instead of writing nonsense.
  const std::vector<SeratoGridAnchor> damaged{
      {std::nan(""), std::nullopt, 4}, {1.0, std::nullopt, 4}, {1.0, 100.0, std::nullopt}};
  const auto kept = SeratoStore::gridFromSerato(damaged);
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_DOUBLE_EQ(kept[0].bpm, 100);
}

}  // namespace
}  // namespace orvel
