// The command line end to end, in-process: each `orvel` call opens the
// catalogue afresh, as separate runs of the program would.
#include "tools/cli/cli.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sqlite3.h>

#include <chrono>
#include <fstream>
#include <iterator>

#include "core/store/locations.h"
#include "core/testing/damage.h"
#include "tools/cli/cli_fixture.h"

namespace orvel::cli {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST_F(CliTest, EveryEditIsListedAndCanBeUndoneAndRedoneById) {
  const std::string ids[] = {std::to_string(a_), std::to_string(b_)};
  // Each says what it did in the words the window's toast uses.
  const std::vector<std::pair<std::vector<std::string>, std::string>> edits = {
      {{"set", "genre", "Deep House", ids[0], ids[1]}, "Edit Genre on 2 tracks"},
      {{"set", "albumartist", "Various", ids[0]}, "Edit Albumartist to Various"},
      {{"rate", "4", ids[0]}, "Rated 1 track \u2605\u2605\u2605\u2605\u2606"},
      {{"love", ids[1]}, "Loved 1 track"},
      {{"dislike", ids[0]}, "Disliked 1 track \u00b7 hidden from every view"},
      {{"rm", ids[1]}, "Removed 1 track from the library"},
  };
  std::vector<std::string> opIds;
  for (const auto& [args, name] : edits) {
    const Result r = orvel(args);
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_THAT(r.out, StartsWith(name + " (undo with: orvel undo "));
    opIds.push_back(opOf(r));
  }
  const json history = orvelJson({"history"});
  ASSERT_EQ(history.size(), edits.size() + 1);  // and the fixture's own edit
  // All in the same second or two, still listed in the order they were made.
  EXPECT_EQ(history[0]["opName"], "Remove from Library");
  EXPECT_EQ(history[1]["opName"], "Dislike");
  for (const auto& op : opIds) {
    const bool listed =
        std::any_of(history.begin(), history.end(), [&](const json& h) { return h["id"] == op; });
    EXPECT_TRUE(listed) << op;
  }

  // Undo all, out of order, by id.
  for (const std::string& op : {opIds[2], opIds[5], opIds[0], opIds[1], opIds[3], opIds[4]}) {
    const Result r = orvel({"undo", op});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("Undid"));
  }
  json ta = track(a_), tb = track(b_);
  EXPECT_EQ(ta["genre"], "");
  EXPECT_EQ(ta["extras"]["albumArtist"], "");
  EXPECT_EQ(ta["rating"], nullptr);
  EXPECT_EQ(ta["disliked"], false);
  EXPECT_EQ(tb["loved"], false);
  EXPECT_EQ(tb["removed"], false);
  EXPECT_EQ(orvel({"undo", opIds[0]}).code, 1);  // already undone

  for (const auto& op : opIds) EXPECT_EQ(orvel({"redo", op}).code, 0);
  ta = track(a_);
  tb = track(b_);
  EXPECT_EQ(ta["genre"], "Deep House");
  EXPECT_EQ(ta["extras"]["albumArtist"], "Various");
  EXPECT_EQ(ta["rating"], 80);
  EXPECT_EQ(ta["disliked"], true);
  EXPECT_EQ(tb["loved"], true);
  EXPECT_EQ(tb["removed"], true);

  // Without an id, undo takes the newest operation in force.
  EXPECT_THAT(orvel({"undo"}).out, HasSubstr("\"Remove from Library\""));
}

TEST_F(CliTest, UndoingAnOlderEditKeepsTheNewerValueAndSaysSo) {
  const std::string id = std::to_string(b_);
  const std::string first = opOf(orvel({"set", "genre", "A", id}));
  ASSERT_EQ(orvel({"set", "genre", "B", id}).code, 0);
  const Result undone = orvel({"undo", first});
  EXPECT_EQ(undone.code, 0) << undone.err;
  EXPECT_THAT(undone.out, HasSubstr("kept 1 newer value"));
  EXPECT_EQ(track(b_)["genre"], "B");
}

// Another program holding the catalogue past the busy timeout: the undo is
// not claimed, the one line says why, and it still can be undone later.
TEST_F(CliTest, AnUndoThatCannotBeCommittedIsAFailureWithItsReason) {
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(dbPath().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  const Result held = orvel({"undo"});
  sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(other);

  EXPECT_EQ(held.code, 1);
  EXPECT_EQ(held.out, "");
  EXPECT_THAT(held.err, HasSubstr("undoing \"Edit Artist\""));
  EXPECT_THAT(held.err, HasSubstr("locked"));
  EXPECT_EQ(std::count(held.err.begin(), held.err.end(), '\n'), 1) << held.err;
  EXPECT_EQ(track(a_)["artist"], "Floorplan");
  EXPECT_EQ(orvelJson({"history"})[0]["undone"], false);

  const Result later = orvel({"undo"});
  EXPECT_EQ(later.code, 0) << later.err;
  EXPECT_THAT(later.out, StartsWith("Undid \"Edit Artist\""));
}

TEST_F(CliTest, BadInputIsOneLineAndChangesNothing) {
  const auto before = orvelJson({"history"}).size();
  const auto expectOneLine = [](const Result& r, int code, const std::string& text) {
    EXPECT_EQ(r.code, code) << r.err;
    EXPECT_THAT(r.err, HasSubstr(text));
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.out, "");
  };
  expectOneLine(orvel({"set", "gnere", "House", std::to_string(a_)}), 2, "unknown field 'gnere'");
  expectOneLine(orvel({"set", "path_norm", "x", std::to_string(a_)}), 2, "cannot be edited");
  expectOneLine(orvel({"set", "bpm", "fast", std::to_string(a_)}), 2, "takes a number");
  expectOneLine(orvel({"set", "rating", "4", std::to_string(a_)}), 2, "steps of 20");
  for (const char* nonsense : {"-120", "1e308", "0"})
    expectOneLine(orvel({"set", "bpm", nonsense, std::to_string(a_)}), 2,
                  "a tempo is 20 to 999 BPM");
  for (const char* nonsense : {"inf", "nan"})
    expectOneLine(orvel({"set", "bpm", nonsense, std::to_string(a_)}), 2, "takes a number");
  expectOneLine(orvel({"set", "year", "99999999999999999999", std::to_string(a_)}), 2,
                "a year is a whole number from 0 to 9999");
  expectOneLine(orvel({"set", "playcount", "99999999999999999999", std::to_string(a_)}), 2,
                "far too big");
  expectOneLine(orvel({"set", "path", "/music/DJ Koze/xtc.MP3", std::to_string(a_)}), 1,
                "UNIQUE");  // that file is another live track
  expectOneLine(orvel({"set", "genre", "House", std::to_string(a_), "999"}), 1,
                "no track with id 999");
  expectOneLine(orvel({"rate", "9", std::to_string(a_)}), 2, "9");
  expectOneLine(orvel({"rate", "3", "abc"}), 2, "abc");
  expectOneLine(orvel({"undo", "1-2-nothing"}), 1, "no operation with id 1-2-nothing");
  expectOneLine(orvel({"show", "999"}), 1, "no track with id 999");
  expectOneLine(orvel({"ls", "--sort", "colour"}), 2, "cannot sort by 'colour'");
  EXPECT_EQ(orvelJson({"history"}).size(), before);
  EXPECT_EQ(track(a_)["genre"], "");

  std::ostringstream out, err;
  EXPECT_EQ(run({"--db", (dir_ / "no/such/dir/x.db").string(), "info"}, out, err), 1);
  EXPECT_THAT(err.str(), HasSubstr("cannot open the catalogue"));
  EXPECT_EQ(run({}, out, err), 2);
}

TEST_F(CliTest, ListingsSearchSortLimitAndShowTrackRowFields) {
  const json all = orvelJson({"ls"});
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0]["id"], a_);  // newest first
  for (const char* key : {"title", "artist", "bpm", "durationMs", "cueCount", "sizeBytes",
                          "isProduction", "dateAdded", "flags", "extras"})
    EXPECT_TRUE(all[0].contains(key)) << key;

  EXPECT_EQ(orvelJson({"ls", "--search", "JAE"}).at(0)["id"], b_);
  const json sorted = orvelJson({"ls", "--sort", "-title", "--limit", "2"});
  ASSERT_EQ(sorted.size(), 2u);
  EXPECT_EQ(sorted[0]["title"], "XTC");
  EXPECT_EQ(sorted[1]["title"], "Shades of Jae");

  const json members = orvelJson({"ls", "--playlist", "Sets/Warm-up"});
  ASSERT_EQ(members.size(), 2u);
  EXPECT_EQ(members[0]["id"], c_);  // playlist order, not date order
  EXPECT_EQ(orvelJson({"ls", "--playlist", "2"}), members);
  EXPECT_EQ(orvel({"ls", "--playlist", "Sets/Peak"}).code, 1);
  EXPECT_EQ(orvel({"ls", "--playlist", "99999999999999999999"}).code, 1);

  const Result table = orvel({"ls"});
  EXPECT_EQ(table.code, 0);
  EXPECT_THAT(table.out, HasSubstr("Never Grow Old"));
  // A header, three rows and the status line of the library view.
  EXPECT_EQ(std::count(table.out.begin(), table.out.end(), '\n'), 5);
  const std::string last = table.out.substr(table.out.rfind('\n', table.out.size() - 2) + 1);
  EXPECT_THAT(last, ::testing::StartsWith("3 tracks \u00b7 "));
  EXPECT_THAT(orvel({"show", std::to_string(a_)}).out,
              HasSubstr("#" + std::to_string(a_) + "  Floorplan — Never Grow Old"));
}

TEST_F(CliTest, InfoAndBackup) {
  const json info = orvelJson({"info"});
  EXPECT_EQ(info["counts"]["tracks"], 3);
  EXPECT_EQ(info["schema"]["userVersion"], OrvelDB::kSchemaVersion);
  EXPECT_EQ(info["schema"]["uniquePathIndex"], true);
  EXPECT_EQ(info["paths"]["database"], dbPath());

  const Result r = orvel({"backup", "--keep", "2"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr((dir_ / "Backups").string()));
  EXPECT_FALSE(std::filesystem::exists(locations::backupsDir()));  // the usual backups untouched
  const Result relink = orvel({"relink"});
  EXPECT_EQ(relink.code, 0);
  EXPECT_THAT(relink.out, HasSubstr("3 files not found"));
}

TEST_F(CliTest, WritingCommandsTakeTheAutomaticBackupAtMostOnceADay) {
  const auto backups = [&] {
    size_t n = 0;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(dir_ / "Backups", ec), end; !ec && it != end;
         it.increment(ec))
      ++n;
    return n;
  };
  ASSERT_EQ(orvel({"ls"}).code, 0);
  ASSERT_EQ(orvel({"relink"}).code, 0);  // a dry run writes nothing
  EXPECT_EQ(backups(), 0u);
  ASSERT_EQ(orvel({"rate", "3", std::to_string(a_)}).code, 0);
  EXPECT_EQ(backups(), 1u);
  ASSERT_EQ(orvel({"playlist", "create", "Gig"}).code, 0);
  EXPECT_EQ(backups(), 1u);
}

TEST_F(CliTest, ADamagedOrForeignCatalogueIsAFailureNeverAShortListing) {
  for (int i = 0; i < 400; ++i)
    add(fmt::format("/music/{:03} {}.mp3", i, std::string(120, 'x')), "t", 2000 + i);
  ASSERT_EQ(orvel({"backup"}).code, 0);
  db_.reset();
  ASSERT_TRUE(testing::damageLastPageOf(dbPath(), "tracks"));
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"ls"}, {"ls", "--json"}, {"info"}, {"info", "--check"}, {"backup"}}) {
    const Result r = orvel(args);
    EXPECT_EQ(r.code, 1) << args[0] << ": " << r.out;
    EXPECT_THAT(r.err, HasSubstr("damaged")) << args[0];
    EXPECT_THAT(r.err, HasSubstr("Backups")) << args[0];
  }
  // The good backup is whole and says so.
  std::filesystem::path copy;
  for (const auto& entry : std::filesystem::directory_iterator(dir_ / "Backups")) copy = entry;
  std::ostringstream out, err;
  EXPECT_EQ(run({"--db", copy.string(), "info", "--check"}, out, err), 0) << err.str();
  EXPECT_THAT(out.str(), HasSubstr("integrity   ok"));

  // Another program's database is refused and left as it was.
  const std::string photos = (dir_ / "photos.db").string();
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(photos.c_str(), &raw), SQLITE_OK);
  sqlite3_exec(raw, "CREATE TABLE photos(id INTEGER PRIMARY KEY)", nullptr, nullptr, nullptr);
  sqlite3_close(raw);
  std::ostringstream out2, err2;
  EXPECT_EQ(run({"--db", photos, "rate", "3", "1"}, out2, err2), 1);
  EXPECT_THAT(err2.str(), HasSubstr("not an Orvel catalogue"));
  EXPECT_EQ(std::filesystem::file_size(photos), 8192u);
}

TEST_F(CliTest, ReadingNeitherWaitsForAWriterNorChangesTheCatalogue) {
  // Another process (the window, say) is in the middle of a write.
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(dbPath().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE; UPDATE tracks SET genre = 'x'", nullptr, nullptr,
                         nullptr),
            SQLITE_OK);
  const auto start = std::chrono::steady_clock::now();
  const Result ls = orvel({"ls"});
  const auto took = std::chrono::steady_clock::now() - start;
  sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(other);
  EXPECT_EQ(ls.code, 0) << ls.err;
  EXPECT_THAT(ls.out, HasSubstr("XTC"));
  EXPECT_LT(took, std::chrono::seconds(1));

  // A backup looked at with --db stays byte for byte as it was.
  ASSERT_EQ(orvel({"backup"}).code, 0);
  std::filesystem::path copy;
  for (const auto& entry : std::filesystem::directory_iterator(dir_ / "Backups")) copy = entry;
  ASSERT_FALSE(copy.empty());
  const auto bytes = [&] {
    std::ifstream in(copy, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const std::string before = bytes();
  std::ostringstream out, err;
  EXPECT_EQ(run({"--db", copy.string(), "ls"}, out, err), 0) << err.str();
  EXPECT_THAT(out.str(), HasSubstr("XTC"));
  EXPECT_TRUE(bytes() == before) << "looking at a backup changed it";
}

}  // namespace
}  // namespace orvel::cli
