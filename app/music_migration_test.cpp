#include "app/music_migration.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>

#include "app/app_paths.h"
#include "app/music_library_reader.h"
#include "app/testing/music_library_xml.h"
#include "core/store/connection.h"
#include "core/store/statement.h"
#include "core/testing/store_fixture.h"

namespace orvel::app {
namespace {
namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using app::testing::musicLibraryXml;
using app::testing::musicPlaylistXml;
using app::testing::musicTrackXml;

// A library as Music exports it: Music's own lists, nested folders, a file
// name in decomposed form, a track the catalogue lacks and one it knows only
// by its persistent id.
std::string libraryXml(std::vector<int> warmup = {102, 105, 101}) {
  const std::string yes = "<true/>";
  return musicLibraryXml(
      musicTrackXml(101, "1A2B3C4D5E6F7081", "file:///Music/My%20Songs/a%20b.mp3",
                    "<key>Rating</key><integer>80</integer><key>Loved</key>" + yes +
                        "<key>Play Count</key><integer>5</integer>") +
          musicTrackXml(102, "00000000000000C2", "file:///Music/Cafe%CC%81/STRA%C3%9FE.mp3",
                        "<key>Rating</key><integer>60</integer><key>Rating Computed</key>" + yes +
                            "<key>Play Count</key><integer>2</integer><key>Has Video</key>" + yes) +
          musicTrackXml(103, "ab", "file:///old/place.mp3",
                        "<key>Rating</key><integer>40</integer><key>Favorited</key>" + yes) +
          musicTrackXml(104, "00000000000000D4", "file:///Music/played.mp3",
                        "<key>Disliked</key>" + yes + "<key>Play Count</key><integer>3</integer>") +
          musicTrackXml(105, "00000000000000E5", "file:///Music/nothere.mp3",
                        "<key>Rating</key><integer>100</integer><key>Loved</key>" + yes),
      musicPlaylistXml("Library", "0000000000000001", "", "<key>Master</key>" + yes, {101, 102}) +
          musicPlaylistXml("Music", "0000000000000002", "",
                           "<key>Distinguished Kind</key><integer>4</integer>", {101}) +
          // A child listed before its folder, as Music sometimes does.
          musicPlaylistXml("Warmup", "00000000000000B3", "00000000000000B2", "", warmup) +
          musicPlaylistXml("Sets", "00000000000000B1", "", "<key>Folder</key>" + yes) +
          musicPlaylistXml("2024", "00000000000000B2", "00000000000000B1",
                           "<key>Folder</key>" + yes) +
          musicPlaylistXml("Peak", "00000000000000B4", "", "", {103}));
}

class MusicMigrationTest : public orvel::testing::StoreTest {
 protected:
  void SetUp() override {
    // python3 is a dependency (scripts/install-deps); without it this must fail.
    ASSERT_TRUE(AppPaths::pythonWorks()) << "python3 does not run";
    xml_ = dir_ / "Library.xml";
    std::ofstream(xml_) << libraryXml();
    a_ = add("/Music/My Songs/a b.mp3");
    cafe_ =
        add("/Music/Caf\xC3\xA9/Stra\xC3\x9F"
            "e.mp3");
    moved_ = add("/Music/moved.mp3");
    played_ = add("/Music/played.mp3");
    sql("UPDATE tracks SET music_pid = '00000000000000AB' WHERE id = " + std::to_string(moved_));
    sql("UPDATE tracks SET play_count = 50 WHERE id = " + std::to_string(played_));
  }
  void sql(const std::string& statement) { Connection(dbPath()).execIgnoring(statement); }
  std::string text(const std::string& query) { return rows(query); }
  // Everything a migration may touch.
  std::string state() const {
    return tableText("tracks") + tableText("playlists") + tableText("playlist_tracks") +
           tableText("sources");
  }
  MusicMigration::Result migrate(std::vector<std::string>* progress = nullptr) {
    MusicMigration migration;
    return migration.run({dbPath(), xml_, [progress](const std::string& line) {
                            if (progress) progress->push_back(line);
                          }});
  }

  fs::path xml_;
  int64_t a_ = 0, cafe_ = 0, moved_ = 0, played_ = 0;
};

TEST_F(MusicMigrationTest, BringsInMarksAndPlaylistsOnceAndOnlyOnce) {
  const std::string before = state();
  std::vector<std::string> progress;
  const auto first = migrate(&progress);
  ASSERT_TRUE(first.ok()) << first.summary.sentence();
  // The copy taken first holds the catalogue as it was.
  ASSERT_TRUE(fs::is_regular_file(first.snapshot));
  EXPECT_EQ(Connection(first.snapshot.string())
                .scalarInt("SELECT COUNT(*) FROM tracks WHERE rating > 0 OR loved = 1")
                .value_or(-1),
            0);
  EXPECT_EQ(first.summary.sentence(),
            "Brought in 2 rated, 2 loved, 1 disliked, 2 play counts and 4 playlists.");
  EXPECT_THAT(progress, ElementsAre("Reading your Music library…", "Ratings, loved and play counts",
                                    "ratings: 4 of 5 tracks matched", "Disliked tracks",
                                    "dislikes: 1 of 1 disliked tracks matched", "Playlists",
                                    "playlists: 4 in Music, 3 entries"));

  const auto id = [](int64_t v) { return std::to_string(v); };
  EXPECT_EQ(text("SELECT COALESCE(rating,'-') || ',' || COALESCE(loved,'-') || ',' || "
                 "COALESCE(play_count,'-') || ',' || COALESCE(music_pid,'-') FROM tracks ORDER "
                 "BY id"),
            "80,1,5,1A2B3C4D5E6F7081|-,-,2,00000000000000C2|40,1,-,00000000000000AB|"
            "-,-,50,00000000000000D4");
  EXPECT_EQ(text("SELECT id FROM tracks WHERE disliked = 1"), id(played_));
  EXPECT_EQ(text("SELECT p.name || ':' || p.kind || ':' || COALESCE(q.name, '') FROM playlists p "
                 "JOIN sources s ON s.id = p.source_id LEFT JOIN playlists q ON q.id = "
                 "p.parent_id WHERE s.name = 'music' ORDER BY p.sort_order"),
            "Warmup:playlist:2024|Sets:crate:|2024:crate:Sets|Peak:playlist:");
  const std::string members =
      "SELECT GROUP_CONCAT(track_id, ',') FROM (SELECT t.track_id FROM playlist_tracks t JOIN "
      "playlists p ON p.id = t.playlist_id WHERE p.name = '%' ORDER BY t.position)";
  auto of = [&members](const std::string& name) {
    std::string q = members;
    return q.replace(q.find('%'), 1, name);
  };
  EXPECT_EQ(text(of("Warmup")), id(cafe_) + "," + id(a_));
  EXPECT_EQ(text(of("Peak")), id(moved_));

  // The whole run, nested folders and the Music source included, is one
  // operation: undone, the catalogue is as it was; redone, as the run left it.
  const std::string migrated = state();
  ASSERT_EQ(db().journal().operations(10).size(), 1U);
  EXPECT_EQ(db().journal().operations(10)[0].id, first.opId);
  EXPECT_EQ(db().journal().operations(10)[0].opName, "Apple Music Migration");
  ASSERT_TRUE(db().journal().undo(first.opId));
  EXPECT_EQ(state(), before);
  ASSERT_TRUE(db().journal().redo(first.opId));
  EXPECT_EQ(state(), migrated);

  const auto second = migrate();
  ASSERT_TRUE(second.ok());
  EXPECT_EQ(second.summary.sentence(),
            "Nothing new to bring in — your library already has all of it.");
  EXPECT_EQ(second.entries, 0);
  EXPECT_EQ(state(), migrated);

  // Members follow Music: reordered and dropped there, the same here, and
  // undone with the run that changed them.
  std::ofstream(xml_, std::ios::trunc) << libraryXml({101});
  const auto third = migrate();
  ASSERT_TRUE(third.ok());
  EXPECT_EQ(third.summary.sentence(), "Updated 1 playlists to match Music.");
  EXPECT_EQ(text(of("Warmup")), id(a_));
  EXPECT_EQ(text("SELECT COUNT(*) FROM playlist_tracks"), "2");
  ASSERT_TRUE(db().journal().undo(third.opId));
  EXPECT_EQ(state(), migrated);
}

TEST_F(MusicMigrationTest, NothingRunsWithoutTheLibraryFile) {
  orvel::testing::LogCapture log;
  MusicMigration migration;
  const auto result = migration.run({dbPath(), dir_ / "gone.xml", {}});
  ASSERT_TRUE(result.error);
  EXPECT_EQ(*result.error, "No Music library file at " + (dir_ / "gone.xml").string() +
                               ". In Music choose File ▸ Library ▸ Export Library…, then try "
                               "again.");
  EXPECT_THAT(log.text(), HasSubstr("music migration: No Music library file"));
  // The default is the modern location, under the (test) home.
  EXPECT_EQ(MusicMigration::defaultXml(),
            orvel::locations::home() / "Music" / "Music" / "Library.xml");

  // Not a Music library: every step fails and the catalogue is untouched.
  std::ofstream(xml_) << "<plist><dict><key>Tracks</key>";
  const auto broken = migrate();
  EXPECT_THAT(broken.summary.failedSteps,
              ElementsAre("Ratings, loved and play counts", "Disliked tracks", "Playlists"));
  // Each with the script's own reason.
  const std::string why = ": cannot read the Music library " + xml_.string();
  EXPECT_THAT(broken.problems,
              ElementsAre(StartsWith("migration helper import_music_ratings.py exited 1" + why),
                          StartsWith("migration helper import_music_dislikes.py exited 1" + why),
                          StartsWith("migration helper import_music_playlists.py exited 1" + why)));
  EXPECT_EQ(text("SELECT COUNT(*) FROM playlists p JOIN sources s ON s.id = p.source_id "
                 "WHERE s.name = 'music'"),
            "0");
}

TEST_F(MusicMigrationTest, AFailedStepIsNamedAndTheOthersStillRun) {
  const fs::path scripts = dir_ / "resources" / "scripts";
  fs::create_directories(scripts);
  std::ofstream(scripts / "import_music_ratings.py")
      << "import sys\nprint('Traceback:', file=sys.stderr)\n"
         "print('the catalogue is locked', file=sys.stderr)\nsys.exit(3)\n";
  std::ofstream(scripts / "import_music_dislikes.py")
      << "import os, signal\nos.kill(os.getpid(), signal.SIGKILL)\n";
  setenv("ORVEL_RESOURCES", (dir_ / "resources").c_str(), 1);
  const auto result = migrate();
  unsetenv("ORVEL_RESOURCES");

  EXPECT_FALSE(result.ok());
  EXPECT_THAT(
      result.problems,
      ElementsAre("migration helper import_music_ratings.py exited 3: the catalogue is locked",
                  "migration helper import_music_dislikes.py killed by signal 9"));
  EXPECT_EQ(result.summary.sentence(),
            "Brought in 4 playlists. Ratings, loved and play counts and Disliked tracks did not "
            "come across — see the log.");
}

TEST(MusicMigrationSummary, SaysWhatFailedEvenWhenNothingCame) {
  MusicMigration::Summary s;
  s.failedSteps = {"Playlists"};
  EXPECT_EQ(s.sentence(), "Playlists did not come across — see the log.");
  s.changed.loved = 1;
  s.failedSteps.clear();
  EXPECT_EQ(s.sentence(), "Brought in 1 loved.");
  s.changed.playlistsUpdated = 2;
  EXPECT_EQ(s.sentence(), "Brought in 1 loved. Updated 2 playlists to match Music.");
}

// ---- reading the library directly --------------------------------------------

TEST(MusicLibraryReaderTest, ReadsListsPathsDetailsAndVideos) {
  orvel::testing::TempDir dir;
  std::ofstream(dir / "Library.xml") << libraryXml();
  const MusicLibraryReader reader(dir / "Library.xml");

  const auto lists = reader.playlists();
  ASSERT_EQ(lists.size(), 4U);
  EXPECT_EQ(lists[0].name, "Warmup");
  EXPECT_EQ(lists[0].kind, "playlist");
  EXPECT_EQ(lists[0].parentId, "00000000000000B2");
  EXPECT_THAT(lists[0].itemIds,
              ElementsAre("00000000000000C2", "00000000000000E5", "1A2B3C4D5E6F7081"));
  EXPECT_EQ(lists[1].kind, "folder");
  EXPECT_THAT(lists[1].itemIds, IsEmpty());
  EXPECT_EQ(reader.fullPath("00000000000000B3"), "Sets / 2024 / Warmup");
  EXPECT_EQ(reader.fullPath("0000000000000001"), "");

  const auto where = reader.locationsIfReadable();
  EXPECT_EQ(where.at("1A2B3C4D5E6F7081"), "/Music/My Songs/a b.mp3");
  EXPECT_EQ(where.at("00000000000000C2"),
            "/Music/Cafe\xCC\x81/STRA\xC3\x9F"
            "E.mp3");
  EXPECT_EQ(where.at("00000000000000AB"), "/old/place.mp3");

  const auto extra = reader.extraEntries();
  ASSERT_EQ(extra.size(), 5U);
  EXPECT_EQ(extra[0].playCount, 5);
  EXPECT_FALSE(extra[0].totalMs);

  const auto video = reader.videoFlags();
  EXPECT_TRUE(video.at("00000000000000C2"));
  EXPECT_FALSE(video.at("1A2B3C4D5E6F7081"));
}

TEST(MusicLibraryReaderTest, DamagedFilesGiveNothingAndALogLine) {
  orvel::testing::TempDir dir;
  const std::string full = libraryXml();
  const std::vector<std::string> damaged = {full.substr(0, full.size() / 2),
                                            "garbage \x01\xff<<",
                                            "",
                                            std::string(5000, '<') + "dict>",
                                            "<plist><array/></plist>",
                                            "<plist><dict>" + std::string(2000, ' ') + [] {
                                              std::string deep;
                                              for (int i = 0; i < 5000; ++i) deep += "<array>";
                                              return deep;
                                            }()};
  for (const std::string& text : damaged) {
    std::ofstream(dir / "Library.xml", std::ios::trunc) << text;
    orvel::testing::LogCapture log;
    const MusicLibraryReader reader(dir / "Library.xml");
    EXPECT_THAT(reader.playlists(), IsEmpty());
    EXPECT_THAT(reader.locationsIfReadable(), IsEmpty());
    EXPECT_THAT(reader.extraEntries(), IsEmpty());
    EXPECT_THAT(reader.videoFlags(), IsEmpty());
    EXPECT_THAT(log.text(), HasSubstr("MusicLibraryReader: no access to the Music library "
                                      "(Settings > Privacy > Media & Apple Music)"));
    EXPECT_THAT(log.text(), HasSubstr("MusicLibraryReader.videoFlags: no access"));
  }
  EXPECT_THAT(MusicLibraryReader(dir / "none.xml").playlists(), IsEmpty());
}

}  // namespace
}  // namespace orvel::app
