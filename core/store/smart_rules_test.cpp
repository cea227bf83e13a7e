#include "core/store/smart_rules.h"

#include <gmock/gmock.h>

#include <array>
#include <nlohmann/json.hpp>
#include <regex>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

SmartRule rule(std::string field, std::string op, std::string value) {
  return SmartRule::make(std::move(field), std::move(op), std::move(value));
}

TEST(SmartRuleSql, EveryOperatorAndTheWholeStatement) {
  SmartPlaylist p;
  p.matchAll = false;
  p.rules = {rule("genre", "contains", "House"), rule("bpm", "gt", "125")};
  auto [sql, binds] = p.query(1e9);
  EXPECT_EQ(sql,
            "SELECT id FROM tracks\nWHERE merged_into IS NULL AND COALESCE(removed,0)=0 AND "
            "(COALESCE(genre,'') LIKE ? OR CAST(COALESCE(bpm,0) AS REAL) > ?) ORDER BY RANDOM()");
  EXPECT_THAT(binds, ElementsAre(SmartBind("%House%"), SmartBind(int64_t{125})));

  const auto one = [](const char* field, const char* op, const char* value) {
    const auto clause = rule(field, op, value).sql(1'000'000'000.75);
    return clause ? clause->first + " | " + bindText(clause->second) : std::string("none");
  };
  EXPECT_EQ(one("artist", "notContains", "a"), "COALESCE(artist,'') NOT LIKE ? | '%a%'");
  EXPECT_EQ(one("title", "startsWith", "Intro"), "COALESCE(title,'') LIKE ? | 'Intro%'");
  EXPECT_EQ(one("kind", "endsWith", "flac"), "COALESCE(file_type,'') LIKE ? | '%flac'");
  EXPECT_EQ(one("plays", "is", "3"), "COALESCE(play_count,'') = ? | 3");
  EXPECT_EQ(one("key", "isNot", "8A"), "COALESCE(key,'') <> ? | '8A'");
  EXPECT_EQ(one("bitrate", "lt", "256"), "CAST(COALESCE(bitrate_kbps,0) AS REAL) < ? | 256");
  EXPECT_EQ(one("bpm", "atLeast", "124"), "CAST(COALESCE(bpm,0) AS REAL) >= ? | 124");
  EXPECT_EQ(one("year", "atMost", "1999"), "CAST(COALESCE(year,0) AS REAL) <= ? | 1999");
  EXPECT_EQ(one("bpm", "is", "122.5"), "COALESCE(bpm,'') = ? | 122.5");
  // Year is kept as text, so is / is not compare text.
  EXPECT_EQ(one("year", "isNot", "1999"), "COALESCE(year,'') <> ? | '1999'");
  EXPECT_EQ(one("dateAdded", "inLast", "7"), "COALESCE(date_added,0) > ? | 999395200");
  EXPECT_EQ(one("dateAdded", "inLast", "0.5"), "COALESCE(date_added,0) > ? | 999956800");
  // Days that do not parse mean 30, exactly 2,592,000 seconds.
  for (const char* bad : {"abc", "", " 7", "7 days", "nan"})
    EXPECT_EQ(one("dateAdded", "inLast", bad), "COALESCE(date_added,0) > ? | 997408000") << bad;
  // No check of operator against field kind; unknown names drop the rule.
  EXPECT_EQ(one("artist", "gt", "x"), "CAST(COALESCE(artist,0) AS REAL) > ? | 'x'");
  EXPECT_EQ(one("Artist", "contains", "x"), "none");
  EXPECT_EQ(one("artist", "matches", "x"), "none");

  // What a rule must be to be saved: a number for a number field, days from 0.
  for (const auto& [field, op, value] :
       std::vector<std::array<const char*, 3>>{{"bpm", "gt", "abc"},
                                               {"bpm", "is", "inf"},
                                               {"dateAdded", "inLast", "-5"},
                                               {"rating", "lt", " 60"},
                                               {"genre", "gt", "x"},
                                               {"colour", "is", "red"}})
    EXPECT_TRUE(rule(field, op, value).problem()) << field << ":" << op << ":" << value;
  for (const auto& [field, op, value] : std::vector<std::array<const char*, 3>>{
           {"bpm", "gt", "124.5"}, {"dateAdded", "inLast", "0"}, {"genre", "contains", ""}})
    EXPECT_EQ(rule(field, op, value).problem(), std::nullopt) << field << ":" << op;
  EXPECT_THAT(*rule("bpm", "gt", "abc").problem(), ::testing::HasSubstr("bpm:gt:abc"));
}

TEST(SmartRuleSql, DroppedRulesOrderingAndLimits) {
  SmartPlaylist p;
  p.rules = {rule("nope", "is", "x")};
  p.limitEnabled = true;
  p.limitCount = 0;
  p.limitBy = "title";
  auto [sql, binds] = p.query(0);
  EXPECT_TRUE(binds.empty());
  EXPECT_THAT(sql, ::testing::EndsWith("AND (1=1) ORDER BY album COLLATE NOCASE LIMIT 1"));
  p.limitCount = -5;
  p.limitBy = "plays";
  EXPECT_THAT(p.query(0).first,
              ::testing::EndsWith(" ORDER BY COALESCE(play_count,0) DESC LIMIT 1"));
  p.limitEnabled = false;
  p.limitBy = "artist";
  p.rules = {rule("year", "is", "1999"), rule("label", "contains", "x")};
  EXPECT_THAT(p.query(0).first,
              ::testing::EndsWith("(COALESCE(year,'') = ? AND COALESCE(label,'') LIKE ?) ORDER "
                                  "BY artist COLLATE NOCASE"));
  for (const auto& [by, clause] : std::vector<std::pair<std::string, std::string>>{
           {"added", " ORDER BY COALESCE(date_added,0) DESC"},
           {"rating", " ORDER BY COALESCE(rating,0) DESC"},
           {"whatever", " ORDER BY RANDOM()"}}) {
    p.limitBy = by;
    EXPECT_THAT(p.query(0).first, ::testing::EndsWith(clause)) << by;
  }
}

TEST(SmartPlaylistJson, RoundTripsWithUpperCaseIdsAndRequiresEveryKey) {
  SmartPlaylist p;
  EXPECT_EQ(p.name, "New Smart Playlist");
  ASSERT_EQ(p.rules.size(), 1u);
  EXPECT_TRUE(std::regex_match(
      p.rules[0].id,
      std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")));
  p.rules.push_back(rule("bpm", "gt", "12\"5 ✓"));
  p.limitCount = 1'000'000'000'000;
  p.liveUpdate = false;
  const std::string text = p.toJSON();
  EXPECT_EQ(SmartPlaylist::fromJSON(text), p);

  auto doc = nlohmann::json::parse(text);
  EXPECT_EQ(doc.size(), 7u);
  EXPECT_EQ(doc["rules"][0].size(), 4u);
  auto lowered = doc;
  for (char& c : lowered["rules"][0]["id"].get_ref<std::string&>())
    c = static_cast<char>(std::tolower(c));
  EXPECT_EQ(SmartPlaylist::fromJSON(lowered.dump())->rules[0].id, p.rules[0].id);
  for (const char* key :
       {"name", "matchAll", "rules", "limitEnabled", "limitCount", "limitBy", "liveUpdate"}) {
    auto missing = doc;
    missing.erase(key);
    EXPECT_FALSE(SmartPlaylist::fromJSON(missing.dump())) << key;
  }
  auto badRule = doc;
  badRule["rules"][1].erase("value");
  EXPECT_FALSE(SmartPlaylist::fromJSON(badRule.dump()));
  badRule = doc;
  badRule["rules"][1]["id"] = "not-a-uuid";
  EXPECT_FALSE(SmartPlaylist::fromJSON(badRule.dump()));
  badRule = doc;
  badRule["matchAll"] = "true";
  EXPECT_FALSE(SmartPlaylist::fromJSON(badRule.dump()));
  EXPECT_FALSE(SmartPlaylist::fromJSON("{"));
}

class SmartPlaylistsTest : public testing::StoreTest {
 protected:
  int64_t track(const std::string& name, const std::string& genre, const std::string& bpm) {
    const int64_t id = add("/m/" + name + ".mp3", name);
    EXPECT_TRUE(db().tracks().writeField("genre", genre, std::vector<int64_t>{id}));
    if (!bpm.empty()) {
      EXPECT_TRUE(db().tracks().writeField("bpm", bpm, std::vector<int64_t>{id}));
    }
    return id;
  }
};

TEST_F(SmartPlaylistsTest, NumberFieldsCompareNumbersAndTextFoldsEveryScript) {
  const int64_t house = track("a", "Deep House", "122");
  const int64_t fast = track("b", "Techno", "130.5");
  const int64_t pct = track("c", "100% Vinyl", "");
  const int64_t gone = track("d", "House", "128");
  const int64_t merged = track("e", "House", "128");
  ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{gone}));
  db().execChecked("UPDATE tracks SET merged_into = " + std::to_string(house) +
                   " WHERE id = " + std::to_string(merged));

  SmartPlaylist p;
  p.matchAll = false;
  p.rules = {rule("genre", "contains", "house"), rule("bpm", "gt", "125")};
  EXPECT_THAT(db().smart().smartQueryIds(p), UnorderedElementsAre(house, fast));
  p.rules = {rule("genre", "contains", "0%V")};  // the user's % is a wildcard
  EXPECT_THAT(db().smart().smartQueryIds(p), ElementsAre(pct));
  p.rules = {rule("bpm", "lt", "125")};  // no BPM counts as 0
  EXPECT_THAT(db().smart().smartQueryIds(p), UnorderedElementsAre(house, pct));
  // Number fields compare numbers: "is" used to meet a text bind and match
  // nothing, "is not" everything.
  p.rules = {rule("bpm", "is", "122")};
  EXPECT_THAT(db().smart().smartQueryIds(p), ElementsAre(house));
  p.rules = {rule("bpm", "isNot", "122")};
  EXPECT_THAT(db().smart().smartQueryIds(p), UnorderedElementsAre(fast, pct));
  ASSERT_TRUE(db().tracks().setRating(std::vector<int64_t>{fast}, 3));
  p.rules = {rule("rating", "is", "60")};
  EXPECT_THAT(db().smart().smartQueryIds(p), ElementsAre(fast));
  ASSERT_TRUE(db().tracks().setField("year", "2004", std::vector<int64_t>{pct}, "Edit Year"));
  p.rules = {rule("year", "is", "2004")};
  EXPECT_THAT(db().smart().smartQueryIds(p), ElementsAre(pct));
  // Added in the last 30 days: was always empty.
  db().execChecked("UPDATE tracks SET date_added = strftime('%s','now') - 86400 WHERE id = " +
                   std::to_string(fast));
  p.rules = {rule("dateAdded", "inLast", "30")};
  EXPECT_THAT(db().smart().smartQueryIds(p), ElementsAre(fast));
  // Text folds case in every script, as the search field does.
  ASSERT_TRUE(db().tracks().writeField("genre", "Été Disco", std::vector<int64_t>{pct}));
  p.rules = {rule("genre", "contains", "été")};
  EXPECT_THAT(db().smart().smartQueryIds(p), ElementsAre(pct));
  p.rules = {rule("title", "is", "b")};
  EXPECT_THAT(db().smart().smartQueryIds(p), ElementsAre(fast));
  p.rules = {rule("nope", "is", "x")};
  EXPECT_EQ(db().smart().smartQueryIds(p).size(), 3u);  // every live track
  p.limitEnabled = true;
  p.limitCount = 2;
  EXPECT_EQ(db().smart().smartQueryIds(p).size(), 2u);
}

TEST_F(SmartPlaylistsTest, LivePlaylistsFollowTheCatalogueStaticOnesKeepTheirMembers) {
  const int64_t a = track("a", "House", "120");
  SmartPlaylist live;
  live.name = "House";
  live.rules = {rule("genre", "is", "House")};
  SmartPlaylist fixed = live;
  fixed.name = "House then";
  fixed.liveUpdate = false;

  const auto saved = db().smart().saveSmartPlaylist(live);
  const auto kept = db().smart().saveSmartPlaylist(fixed);
  ASSERT_TRUE(saved.playlistId && kept.playlistId) << saved.error << kept.error;
  EXPECT_EQ(saved.trackCount, 1);
  EXPECT_EQ(db().playlists().playlistKind(*saved.playlistId), "smart");
  EXPECT_EQ(db().smart().loadSmartRules(*saved.playlistId), live);
  EXPECT_THAT(db().smart().smartPlaylists(), ElementsAre(::testing::Pair(*saved.playlistId, true),
                                                         ::testing::Pair(*kept.playlistId, false)));

  const int64_t b = track("b", "House", "124");
  ASSERT_TRUE(db().tracks().writeField("genre", "Disco", std::vector<int64_t>{a}));
  EXPECT_THAT(*db().smart().refreshSmartPlaylist(*saved.playlistId), ElementsAre(b));
  EXPECT_THAT(db().playlists().orderedTrackIds(*saved.playlistId), ElementsAre(b));
  EXPECT_FALSE(db().smart().refreshSmartPlaylist(*kept.playlistId));
  EXPECT_THAT(db().playlists().orderedTrackIds(*kept.playlistId), ElementsAre(a));

  // Editing is one operation: undo restores the old rules, name and members.
  SmartPlaylist edited = live;
  edited.name = "Disco";
  edited.rules = {rule("genre", "is", "Disco")};
  const auto edit = db().smart().saveSmartPlaylist(edited, saved.playlistId);
  ASSERT_TRUE(edit.playlistId) << edit.error;
  EXPECT_THAT(db().playlists().orderedTrackIds(*saved.playlistId), ElementsAre(a));
  ASSERT_TRUE(db().journal().undo(edit.opId));
  EXPECT_EQ(db().playlists().playlist(*saved.playlistId)->name, "House");
  EXPECT_EQ(db().smart().loadSmartRules(*saved.playlistId), live);
  EXPECT_THAT(db().playlists().orderedTrackIds(*saved.playlistId), ElementsAre(b));

  ASSERT_TRUE(  // Undoing the creation leaves no trace of it.
      db().journal().undo(kept.opId));
  EXPECT_FALSE(db().playlists().playlist(*kept.playlistId));
  EXPECT_EQ(db().playlists().playlistRowCount(*kept.playlistId), 0);
  EXPECT_FALSE(db().smart().smartPlaylists().contains(*kept.playlistId));

  SmartPlaylist empty;
  empty.rules.clear();
  EXPECT_EQ(db().smart().saveSmartPlaylist(empty).error,
            "Add at least one rule — an empty one matches everything");
  db().execChecked("UPDATE smart_playlists SET rules_json = '{}'");
  EXPECT_FALSE(db().smart().loadSmartRules(*saved.playlistId));
  EXPECT_FALSE(db().smart().refreshSmartPlaylist(*saved.playlistId));
}

}  // namespace
}  // namespace orvel
