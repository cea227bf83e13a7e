// orvel playlist, cue, smart, snapshot(s) end to end.
#include <filesystem>
#include <fstream>

#include "tools/cli/cli_fixture.h"

namespace orvel::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class LibraryCliTest : public CliTest {
 protected:
  std::vector<int64_t> members(const std::string& playlist) {
    std::vector<int64_t> ids;
    const json shown = orvelJson({"playlist", "show", playlist});
    for (const auto& t : shown["tracks"]) ids.push_back(t["id"].get<int64_t>());
    return ids;
  }
  // Everything a bad command could have touched.
  std::string state() {
    return orvel({"playlist", "tree", "--json"}).out + orvel({"history", "--json"}).out +
           orvel({"cue", "ls", std::to_string(a_), "--json"}).out;
  }
  std::string id(int64_t v) { return std::to_string(v); }
  // The track's file moved to moved/NAME and was imported there as a new row.
  void moved(int64_t track, const std::string& name, int64_t bytes) {
    const auto file = dir_ / "moved" / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << std::string(static_cast<size_t>(bytes), 'x');
    db().execChecked(fmt::format(
        "UPDATE tracks SET duration_ms = 200000, filesize_bytes = {} WHERE id = {}", bytes, track));
    NewTrack t;
    t.path = file.string();
    t.durationMs = 200'000;
    t.filesizeBytes = bytes;
    ASSERT_TRUE(db().tracks().insertImported(t, *db().tracks().orvelSourceId()));
    db_.reset();
  }
};

TEST_F(LibraryCliTest, PlaylistsFromCreationToUndoneDeletion) {
  Result r = orvel({"playlist", "create", "2026", "--parent", "Sets", "--crate"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("\"Sets / 2026\""));
  ASSERT_EQ(orvel({"playlist", "create", "Peak", "--parent", "Sets / 2026"}).code, 0);
  r = orvel({"playlist", "add", "Sets/2026/Peak", id(b_), id(a_), id(b_)});
  EXPECT_THAT(r.out, HasSubstr("Added 2 tracks"));
  EXPECT_EQ(orvel({"playlist", "add", "Sets/2026/Peak", id(c_)}).code, 0);
  ASSERT_EQ(orvel({"playlist", "reorder", "Sets/2026/Peak", id(c_), id(a_)}).code, 0);
  EXPECT_THAT(members("Sets/2026/Peak"), ElementsAre(c_, a_, b_));
  ASSERT_EQ(orvel({"playlist", "remove", "Sets/2026/Peak", id(a_)}).code, 0);
  EXPECT_THAT(members("Sets/2026/Peak"), ElementsAre(c_, b_));
  ASSERT_EQ(orvel({"playlist", "rename", "Sets / Warm-up", "Opening"}).code, 0);
  ASSERT_EQ(orvel({"playlist", "color", "Sets/Opening", "#D9A441"}).code, 0);
  ASSERT_EQ(orvel({"playlist", "move", "Sets/2026", "--top"}).code, 0);

  const json tree = orvelJson({"playlist", "tree"});
  ASSERT_EQ(tree.size(), 2u);
  EXPECT_EQ(tree[0]["name"], "2026");
  EXPECT_EQ(tree[0]["children"][0]["trackCount"], 2);
  EXPECT_EQ(tree[1]["children"][0]["color"], "#D9A441");
  const std::string before = orvel({"playlist", "tree", "--json"}).out;

  r = orvel({"playlist", "rm", "Sets", "2026"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("Deleted \"2026\" and 1 playlist inside it"));
  EXPECT_EQ(orvelJson({"playlist", "tree"}).size(), 0u);
  EXPECT_EQ(orvelJson({"ls"}).size(), 3u);  // the tracks stay
  ASSERT_EQ(orvel({"undo"}).code, 0);
  ASSERT_EQ(orvel({"undo"}).code, 0);
  EXPECT_EQ(orvel({"playlist", "tree", "--json"}).out, before);
  EXPECT_THAT(members("2026/Peak"), ElementsAre(c_, b_));
}

TEST_F(LibraryCliTest, BadInputIsOneLineAndChangesNothing) {
  db().execChecked("UPDATE tracks SET duration_ms = 2000 WHERE id = " + id(a_));
  db_.reset();
  ASSERT_EQ(orvel({"smart", "save", "--name", "S", "--rule", "title:is:XTC"}).code, 0);
  const std::string before = state();
  const std::vector<std::pair<std::vector<std::string>, int>> bad = {
      {{"smart", "save", "--rule", "colour:is:red"}, 2},
      {{"smart", "save", "--rule", "bpm:contains:1"}, 2},
      {{"smart", "save", "--rule", "bpm"}, 2},
      {{"smart", "save", "--rule", "bpm:gt:abc"}, 2},
      {{"smart", "save", "--rule", "dateAdded:inLast:-5"}, 2},
      {{"smart", "save", "--rule", "rating:is:inf"}, 2},
      {{"smart", "save", "--rule", "bpm:gt:1", "--limit-by", "loudness"}, 2},
      {{"smart", "save", "--id", "Sets", "--rule", "bpm:gt:1"}, 1},  // not a smart playlist
      {{"smart", "show", "Nowhere"}, 1},
      {{"playlist", "move", "Sets", "--to", "Sets/Warm-up"}, 1},
      {{"playlist", "move", "Sets", "--to", "Sets"}, 1},
      {{"playlist", "add", "Sets/Nope", id(a_)}, 1},
      {{"playlist", "add", "Sets", id(a_), "999"}, 1},
      {{"playlist", "rm", "Sets", "Nope"}, 1},
      {{"playlist", "reorder", "Sets/Warm-up", id(b_)}, 1},
      {{"playlist", "color", "Sets", "red"}, 2},
      {{"cue", "set", id(a_), "8", "1:00"}, 2},
      {{"cue", "add", id(a_), "1:75"}, 2},
      {{"cue", "add", "999", "10"}, 1},
      {{"cue", "loop", id(a_), "10", "0"}, 2},
      {{"cue", "add", id(a_), "99999:00"}, 1},  // the track is two seconds long
      {{"cue", "loop", id(a_), "1", "5s"}, 1},
      {{"cue", "rm", "424242"}, 1},
  };
  for (const auto& [args, code] : bad) {
    const Result r = orvel(args);
    EXPECT_EQ(r.code, code) << args[0] << " " << args[1] << ": " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.out, "");
  }
  EXPECT_EQ(state(), before);
}

TEST_F(LibraryCliTest, SmartPlaylistSqlLiveAndStatic) {
  Result r = orvel({"smart", "save", "--name", "Either", "--rule", "genre:contains:House", "--rule",
                    "bpm:gt:125", "--any"});
  ASSERT_EQ(r.code, 0) << r.err;
  const json saved = orvelJson({"smart", "save", "--name", "House", "--rule", "genre:is:House"});
  const json kept =
      orvelJson({"smart", "save", "--name", "Then", "--rule", "genre:is:House", "--static"});
  EXPECT_EQ(saved["trackCount"], 0);

  EXPECT_EQ(orvel({"smart", "show", "Either", "--sql"}).out,
            "SELECT id FROM tracks\n"
            "WHERE merged_into IS NULL AND COALESCE(removed,0)=0 AND (COALESCE(genre,'') LIKE ? "
            "OR CAST(COALESCE(bpm,0) AS REAL) > ?) ORDER BY RANDOM()\n"
            "-- ?1 = '%House%'\n"
            "-- ?2 = 125\n");
  EXPECT_THAT(orvel({"smart", "show", "Either"}).out, HasSubstr("BPM is greater than \"125\""));

  // The catalogue changes: the live one follows and stores its new members.
  ASSERT_EQ(orvel({"set", "genre", "House", id(a_), id(c_)}).code, 0);
  const std::string live = id(saved["id"].get<int64_t>());
  const std::string fixed = id(kept["id"].get<int64_t>());
  const json run = orvelJson({"smart", "run", live});
  ASSERT_EQ(run.size(), 2u);
  EXPECT_EQ(orvelJson({"ls", "--playlist", live}).size(), 2u);
  const Result still = orvel({"smart", "run", fixed, "--json"});
  EXPECT_EQ(json::parse(still.out).size(), 0u);
  EXPECT_THAT(still.err, HasSubstr("not live"));
  EXPECT_EQ(orvelJson({"playlist", "show", fixed})["trackCount"], 0);

  // Changing a saved one keeps what is not given and can be undone.
  r = orvel({"smart", "save", "--id", live, "--limit", "1", "--limit-by", "title"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(orvel({"smart", "show", live, "--sql"}).out,
              HasSubstr("(COALESCE(genre,'') = ?) ORDER BY album COLLATE NOCASE LIMIT 1\n"));
  EXPECT_EQ(orvelJson({"playlist", "show", live})["trackCount"], 1);
  ASSERT_EQ(orvel({"undo"}).code, 0);
  EXPECT_EQ(orvelJson({"playlist", "show", live})["trackCount"], 2);
}

TEST_F(LibraryCliTest, CuesAndLoops) {
  const std::string t = id(a_);
  EXPECT_THAT(orvel({"cue", "add", t, "1:30.5"}).out, HasSubstr("Cue 0 at 1:30.500"));
  EXPECT_THAT(orvel({"cue", "add", t, "12.25s"}).out, HasSubstr("Cue 1 at 0:12.250"));
  EXPECT_EQ(orvel({"cue", "set", t, "7", "1:02:03"}).code, 0);
  EXPECT_THAT(orvel({"cue", "loop", t, "2000", "8s"}).out, HasSubstr("Loop 0"));
  json cues = orvelJson({"cue", "ls", t});
  ASSERT_EQ(cues.size(), 4u);
  EXPECT_EQ(cues[2]["positionMs"], 3723000.0);
  const json loop = cues[3];
  EXPECT_EQ(loop["lengthMs"], 8000.0);
  ASSERT_EQ(orvel({"cue", "move", id(loop["id"]), "3s", "--length", "4s"}).code, 0);
  EXPECT_EQ(orvel({"cue", "move", id(cues[0]["id"]), "1s", "--length", "4s"}).code, 2);
  ASSERT_EQ(orvel({"cue", "rm", id(cues[0]["id"]), id(cues[1]["id"])}).code, 0);
  cues = orvelJson({"cue", "ls", t});
  ASSERT_EQ(cues.size(), 2u);
  EXPECT_EQ(cues[1]["positionMs"], 3000.0);
  EXPECT_EQ(cues[1]["lengthMs"], 4000.0);
  ASSERT_EQ(orvel({"undo"}).code, 0);  // the second deletion
  EXPECT_EQ(orvelJson({"cue", "ls", t}).size(), 3u);
  EXPECT_EQ(track(a_)["cues"].size(), 3u);
}

TEST_F(LibraryCliTest, SnapshotsOnRequestAndBeforeRelinking) {
  const Result r = orvel({"snapshot", "before the gig"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("Library snapshot saved: " + (dir_ / "Snapshots").string()));
  json list = orvelJson({"snapshots"});
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["reason"], "before the gig");

  // Relinking snapshots first, but only when something will move.
  ASSERT_EQ(orvel({"relink", "--apply"}).code, 0);
  EXPECT_EQ(orvelJson({"snapshots"}).size(), 1u);
  moved(a_, "Never Grow Old.mp3", 4000);
  const Result relink = orvel({"relink", "--apply"});
  ASSERT_EQ(relink.code, 0) << relink.err;
  EXPECT_THAT(relink.err, HasSubstr("--before relink.db"));
  EXPECT_THAT(relink.out, HasSubstr("1 relinked"));
  EXPECT_THAT(relink.out, HasSubstr("orvel undo "));
  list = orvelJson({"snapshots"});
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0]["reason"], "before relink");
  EXPECT_EQ(track(a_)["path"], (dir_ / "moved/Never Grow Old.mp3").string());

  // A catalogue whose snapshot folder cannot exist is not relinked.
  moved(b_, "Shades of Jae.flac", 5000);
  std::filesystem::remove_all(dir_ / "Snapshots");
  std::ofstream(dir_ / "Snapshots") << "in the way";
  const json before = orvelJson({"info"});
  const Result refused = orvel({"relink", "--apply"});
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err, HasSubstr("nothing was changed"));
  EXPECT_EQ(orvelJson({"info"})["counts"], before["counts"]);
  EXPECT_EQ(orvel({"snapshot"}).code, 1);
}

}  // namespace
}  // namespace orvel::cli
