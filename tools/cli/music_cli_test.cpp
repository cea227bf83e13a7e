#include <fstream>

#include "app/app_paths.h"
#include "app/testing/music_library_xml.h"
#include "tools/cli/cli_fixture.h"
#include "tools/cli/commands.h"

namespace orvel::cli {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using app::testing::musicLibraryXml;
using app::testing::musicPlaylistXml;
using app::testing::musicTrackXml;

class MusicCliTest : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    ASSERT_TRUE(app::AppPaths::pythonWorks()) << "python3 does not run";
  }
  std::string write(const std::string& xml) {
    const std::string file = (dir_ / "Library.xml").string();
    std::ofstream(file, std::ios::trunc) << xml;
    return file;
  }
  // Everything a migration may touch.
  std::string state() const {
    return tableText("tracks") + tableText("playlists") + tableText("playlist_tracks") +
           tableText("sources");
  }
  int migrations() {
    int n = 0;
    for (const auto& op : orvelJson({"history"}))
      if (op["opName"] == "Apple Music Migration") ++n;
    return n;
  }
  std::string id(int64_t v) { return std::to_string(v); }
};

TEST_F(MusicCliTest, MigratePrintsProgressAndSummaryAndFailsWithoutALibrary) {
  const auto missing = orvel({"music", "migrate"});
  EXPECT_EQ(missing.code, 1);
  EXPECT_THAT(missing.err,
              HasSubstr("No Music library file at " +
                        (orvel::locations::home() / "Music/Music/Library.xml").string()));

  const std::string xml =
      write(musicLibraryXml(musicTrackXml(7, "0123456789ABCDEF", "file:///music/DJ%20Koze/XTC.mp3",
                                          "<key>Rating</key><integer>100</integer>"),
                            musicPlaylistXml("Koze", "00000000000000F1", "", "", {7})));
  const auto first = orvel({"music", "migrate", "--xml", xml});
  EXPECT_EQ(first.code, 0) << first.err;
  EXPECT_EQ(first.out,
            "Reading your Music library…\nRatings, loved and play counts\n"
            "ratings: 1 of 1 tracks matched\nDisliked tracks\n"
            "dislikes: 0 of 0 disliked tracks matched\nPlaylists\n"
            "playlists: 1 in Music, 1 entries\nBrought in 1 rated and 1 playlists." +
                undoHint(opOf(first)) + "\n");
  const auto again = orvel({"music", "migrate", "--xml", xml});
  EXPECT_EQ(again.code, 0);
  EXPECT_THAT(again.out, HasSubstr("Nothing new to bring in"));
  EXPECT_THAT(again.out, Not(HasSubstr("orvel undo")));

  // A damaged export: each step says why on the command line, not only in the log.
  write("<plist><dict><key>Tracks</key>");
  const auto broken = orvel({"music", "migrate", "--xml", xml});
  EXPECT_EQ(broken.code, 1);
  EXPECT_THAT(broken.err, HasSubstr("migration helper import_music_ratings.py exited 1: cannot "
                                    "read the Music library " +
                                    xml));
  EXPECT_THAT(broken.err, HasSubstr("migration helper import_music_playlists.py exited 1: "));
}

TEST_F(MusicCliTest, MigrationKeepsWhatTheUserSetAndIsUndoneAsOneOperation) {
  // Set here before Music comes in: five stars, a loved mark and a dislike taken back.
  ASSERT_EQ(orvel({"rate", "5", id(c_)}).code, 0);
  ASSERT_EQ(orvel({"love", "--off", id(a_)}).code, 0);
  ASSERT_EQ(orvel({"dislike", "--off", id(b_)}).code, 0);
  const std::string xml = write(musicLibraryXml(
      musicTrackXml(7, "0123456789ABCDEF", "file:///music/DJ%20Koze/XTC.mp3",
                    "<key>Rating</key><integer>20</integer><key>Loved</key><true/>"
                    "<key>Play Count</key><integer>3</integer>") +
          musicTrackXml(8, "00000000000000A8", "file:///music/Floorplan/Never%20Grow%20Old.mp3",
                        "<key>Rating</key><integer>80</integer><key>Loved</key><true/>"
                        "<key>Play Count</key><integer>10</integer>") +
          musicTrackXml(9, "00000000000000A9", "file:///music/Moodymann/Shades%20of%20Jae.flac",
                        "<key>Rating</key><integer>40</integer><key>Disliked</key><true/>"
                        "<key>Play Count</key><integer>2</integer>"),
      musicPlaylistXml("Koze", "00000000000000F1", "", "", {7, 8})));
  const std::string before = state();

  const auto first = orvel({"music", "migrate", "--xml", xml});
  ASSERT_EQ(first.code, 0) << first.err;
  EXPECT_THAT(first.out, HasSubstr("Brought in 2 rated, 1 loved, 3 play counts and 1 playlists."));
  auto marks = [this](int64_t track) {
    return rows(
        "SELECT COALESCE(rating, '-') || ',' || COALESCE(loved, '-') || ',' || "
        "COALESCE(disliked, '-') || ',' || COALESCE(play_count, '-') FROM tracks WHERE "
        "id = " +
        id(track));
  };
  EXPECT_EQ(marks(c_), "100,1,-,3");  // the user's five stars stay
  EXPECT_EQ(marks(a_), "80,0,-,10");  // and the loved mark they took back
  EXPECT_EQ(marks(b_), "40,-,0,2");   // and the dislike they cleared
  const std::string migrated = state();

  // One operation in the history, and undoing it puts back every value.
  const std::string op = opOf(first);
  ASSERT_FALSE(op.empty()) << first.out;
  EXPECT_EQ(migrations(), 1);
  EXPECT_EQ(orvelJson({"history"})[0]["id"], op);
  const auto undone = orvel({"undo", op});
  ASSERT_EQ(undone.code, 0) << undone.err;
  EXPECT_EQ(state(), before);
  ASSERT_EQ(orvel({"redo", op}).code, 0);
  EXPECT_EQ(state(), migrated);

  // The user changes a rating Music has; a second run keeps it and says nothing came.
  ASSERT_EQ(orvel({"rate", "2", id(a_)}).code, 0);
  const auto again = orvel({"music", "migrate", "--xml", xml});
  ASSERT_EQ(again.code, 0) << again.err;
  EXPECT_THAT(again.out, HasSubstr("Nothing new to bring in"));
  EXPECT_EQ(marks(a_), "40,0,-,10");
  EXPECT_EQ(migrations(), 1);
}

TEST_F(MusicCliTest, NoSnapshotMeansNoMigration) {
  const std::string xml =
      write(musicLibraryXml(musicTrackXml(7, "0123456789ABCDEF", "file:///music/DJ%20Koze/XTC.mp3",
                                          "<key>Rating</key><integer>100</integer>"),
                            musicPlaylistXml("Koze", "00000000000000F1", "", "", {7})));
  // A file where the snapshots folder should be: no copy can be written.
  std::ofstream(dir_ / "Snapshots") << "in the way";
  const std::string before = state();
  const auto r = orvel({"music", "migrate", "--xml", xml});
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("Could not save a snapshot of the catalogue before the migration"));
  EXPECT_THAT(r.err, HasSubstr("nothing was changed"));
  EXPECT_EQ(state(), before);
  EXPECT_EQ(migrations(), 0);
}

}  // namespace
}  // namespace orvel::cli
