// orvel ls with the library view's filters, categories, browse, and edits
// that ask before they touch many tracks.
#include <sstream>

#include "tools/cli/cli_fixture.h"

namespace orvel::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class ViewCliTest : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    // a_: Floorplan "Never Grow Old"; b_: Moodymann "Shades of Jae"; c_: DJ Koze "XTC".
    db().execChecked(fmt::format(
        "UPDATE tracks SET genre = 'Deep House', bpm = 120, key = 'Am', loved = 1 WHERE id = {0};"
        "UPDATE tracks SET genre = 'deep house ', bpm = 122, disliked = 1 WHERE id = {1};"
        "UPDATE tracks SET genre = 'Techno', artist = 'DJ Koze', bpm = 128, duration_ms = 3600000 "
        "WHERE id = {2}",
        a_, b_, c_));
    db_.reset();
  }
  std::vector<int64_t> ids(const json& tracks) {
    std::vector<int64_t> out;
    for (const auto& t : tracks) out.push_back(t["id"].get<int64_t>());
    return out;
  }
  Result asked(std::vector<std::string> args, const std::string& answer) {
    args.insert(args.begin(), {"--db", dbPath()});
    std::istringstream in(answer);
    std::ostringstream out, err;
    const int code = run(args, out, err, {&in, true});
    return {code, out.str(), err.str()};
  }
};

TEST_F(ViewCliTest, ListsFilterAsTheLibraryViewDoes) {
  // The disliked track is hidden everywhere but its own category.
  EXPECT_THAT(ids(orvelJson({"ls"})), ElementsAre(a_, c_));
  EXPECT_THAT(ids(orvelJson({"ls", "--category", "disliked"})), ElementsAre(b_));
  EXPECT_THAT(ids(orvelJson({"ls", "--category", "loved"})), ElementsAre(a_));
  EXPECT_THAT(ids(orvelJson({"ls", "--content", "mixes"})), ElementsAre(c_));
  EXPECT_THAT(ids(orvelJson({"ls", "--scope", "key=8A"})), ElementsAre(a_));
  EXPECT_THAT(ids(orvelJson({"ls", "--scope", "bpm=125-130"})), ElementsAre(c_));
  EXPECT_THAT(ids(orvelJson({"ls", "--genre", "DEEP HOUSE"})), ElementsAre(a_));
  EXPECT_THAT(ids(orvelJson({"ls", "--sort", "-bpm"})), ElementsAre(c_, a_));
  EXPECT_THAT(ids(orvelJson({"ls", "--search", "never grow"})), ElementsAre(a_));
  EXPECT_THAT(ids(orvelJson({"ls", "--search", "nevergrow"})), ::testing::IsEmpty());

  const Result table = orvel({"ls", "--genre", "deep house"});
  EXPECT_THAT(table.out, HasSubstr("1 track of 3 "));
  EXPECT_THAT(table.out, HasSubstr("1 disliked hidden"));
  EXPECT_EQ(orvel({"ls", "--category", "nonsense"}).code, 2);
  EXPECT_EQ(orvel({"ls", "--scope", "mood=happy"}).code, 2);
  EXPECT_EQ(orvel({"ls", "--content", "Jazz"}).code, 2);
}

TEST_F(ViewCliTest, CategoriesAndBrowserColumns) {
  const json counts = orvelJson({"categories"});
  EXPECT_EQ(counts["allTracks"], 2);
  EXPECT_EQ(counts["disliked"], 1);
  EXPECT_EQ(counts["loved"], 1);
  EXPECT_EQ(counts["mixes"], 1);
  EXPECT_EQ(counts.size(), 27u);

  // Spellings that differ in case and blanks are one genre; the first met
  // is shown (the library's newest first: c_, b_, a_).
  EXPECT_EQ(orvelJson({"browse", "genres"}), json({"Deep House", "Techno"}));
  EXPECT_EQ(orvelJson({"browse", "artists", "--genre", "Techno"}), json({"DJ Koze"}));
  EXPECT_EQ(orvel({"browse", "colours"}).code, 2);
}

// Without fingerprints a copy is the same artist, title and duration.
TEST_F(ViewCliTest, DuplicatesAreGroupedAndListedAsACategory) {
  EXPECT_THAT(orvel({"duplicates"}).out, HasSubstr("No duplicates among 3 tracks"));
  const int64_t copy = add("/other/XTC (copy).mp3", "XTC", 50);
  db().execChecked(fmt::format(
      "UPDATE tracks SET artist = 'DJ Koze', duration_ms = 3600500 WHERE id = {}", copy));
  db_.reset();
  const json groups = orvelJson({"duplicates"});
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_THAT(ids(groups[0]), ElementsAre(c_, copy));
  EXPECT_THAT(ids(orvelJson({"ls", "--category", "duplicates"})), ElementsAre(c_, copy));
  EXPECT_EQ(orvelJson({"categories"})["duplicates"], 2);
  EXPECT_THAT(orvel({"duplicates"}).out,
              HasSubstr("2 tracks holding the same recording, in 1 group"));
}

TEST_F(ViewCliTest, EditsOfManyTracksAskFirst) {
  std::vector<std::string> args{"rate", "3"};
  for (int i = 0; i < 35; ++i)
    args.push_back(std::to_string(add("/m/" + std::to_string(i) + ".mp3")));
  db_.reset();
  const std::string first = args[2];

  // Nobody at a terminal: refused with the question and how to say yes.
  Result r = orvel(args);
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("Rate 35 tracks?"));
  EXPECT_THAT(r.err, HasSubstr("--yes"));
  EXPECT_EQ(track(std::stoll(first))["rating"], nullptr);

  r = asked(args, "n\n");
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("This changes 35 tracks at once."));
  EXPECT_EQ(track(std::stoll(first))["rating"], nullptr);

  r = asked(args, "y\n");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("Rated 35 tracks"));
  EXPECT_EQ(track(std::stoll(first))["rating"], 60);

  args[1] = "5";
  args.insert(args.begin(), "--yes");
  r = orvel(args);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(track(std::stoll(first))["rating"], 100);
}

}  // namespace
}  // namespace orvel::cli
