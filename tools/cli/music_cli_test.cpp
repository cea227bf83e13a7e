#include <fstream>

#include "app/app_paths.h"
#include "tools/cli/cli_fixture.h"

namespace orvel::cli {
namespace {

using ::testing::HasSubstr;

class MusicCliTest : public CliTest {};

TEST_F(MusicCliTest, MigratePrintsProgressAndSummaryAndFailsWithoutALibrary) {
  const auto missing = orvel({"music", "migrate"});
  EXPECT_EQ(missing.code, 1);
  EXPECT_THAT(missing.err,
              HasSubstr("No Music library file at " +
                        (orvel::locations::home() / "Music/Music/Library.xml").string()));

  ASSERT_TRUE(app::AppPaths::pythonWorks()) << "python3 does not run";
  const std::string xml = (dir_ / "Library.xml").string();
  std::ofstream(xml)
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
         "<key>Tracks</key><dict><key>7</key><dict><key>Track ID</key><integer>7</integer>"
         "<key>Persistent ID</key><string>0123456789ABCDEF</string><key>Location</key>"
         "<string>file:///music/DJ%20Koze/XTC.mp3</string><key>Rating</key><integer>100"
         "</integer></dict></dict><key>Playlists</key><array><dict><key>Name</key><string>"
         "Koze</string><key>Playlist Persistent ID</key><string>00000000000000F1</string>"
         "<key>Playlist Items</key><array><dict><key>Track ID</key><integer>7</integer>"
         "</dict></array></dict></array></dict></plist>";
  const auto first = orvel({"music", "migrate", "--xml", xml});
  EXPECT_EQ(first.code, 0) << first.err;
  EXPECT_EQ(first.out,
            "Reading your Music library…\nRatings, loved and play counts\n"
            "ratings: 1 of 1 tracks matched\nDisliked tracks\n"
            "dislikes: 0 of 0 disliked tracks matched\nPlaylists\n"
            "playlists: 1 written, 1 entries\nBrought in 1 rated and 1 playlists.\n");
  const auto again = orvel({"music", "migrate", "--xml", xml});
  EXPECT_EQ(again.code, 0);
  EXPECT_THAT(again.out, HasSubstr("Nothing new to bring in"));
}

}  // namespace
}  // namespace orvel::cli
