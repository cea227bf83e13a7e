#include "core/store/unicode_like.h"

#include <gtest/gtest.h>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

TEST(UnicodeLikeTest, FoldsEveryScriptAsTheSearchFieldDoes) {
  EXPECT_TRUE(unicodeLike("%été%", "Été d'amour"));
  EXPECT_TRUE(unicodeLike("%ÉTÉ", "un été"));
  EXPECT_TRUE(unicodeLike("%house%", "DEEP HOUSE"));
  EXPECT_TRUE(unicodeLike("björk%", "BJÖRK — Army of Me"));
  EXPECT_TRUE(unicodeLike("%οδο%", "ΟΔΟΣ"));
  // No diacritic folding: "ete" is not "été".
  EXPECT_FALSE(unicodeLike("%ete%", "Été"));
  // '_' is one character, however many bytes it takes.
  EXPECT_TRUE(unicodeLike("caf_", "CAFÉ"));
  EXPECT_FALSE(unicodeLike("caf_", "cafés"));
  EXPECT_TRUE(unicodeLike("_🎧_", "a🎧b"));
  // '%' backs off as far as it must, and no further.
  EXPECT_TRUE(unicodeLike("%a%b%", "xxAxxBxx"));
  EXPECT_FALSE(unicodeLike("a%", "ba"));
  EXPECT_TRUE(unicodeLike("%ab", "aab"));
  EXPECT_TRUE(unicodeLike("", ""));
  EXPECT_FALSE(unicodeLike("", "x"));
  // An escaped wildcard is a literal.
  EXPECT_TRUE(unicodeLike("100\\%", "100%", "\\"));
  EXPECT_FALSE(unicodeLike("100\\%", "1000", "\\"));
  EXPECT_TRUE(unicodeLike("a\\_b", "a_b", "\\"));
  EXPECT_FALSE(unicodeLike("a\\_b", "axb", "\\"));
}

class UnicodeLikeSqlTest : public testing::StoreTest {};

TEST_F(UnicodeLikeSqlTest, ReplacesSqlitesLikeOnTheStoresConnection) {
  const auto yes = [&](const std::string& expr) {
    return db().scalarInt("SELECT " + expr).value_or(-1);
  };
  EXPECT_EQ(yes("'Été' LIKE '%été%'"), 1);
  EXPECT_EQ(yes("'Ärger' NOT LIKE 'ä%'"), 0);
  EXPECT_EQ(yes("'50%' LIKE '50!%' ESCAPE '!'"), 1);
  EXPECT_EQ(yes("NULL LIKE 'x' IS NULL"), 1);
  EXPECT_EQ(db().execChecked("SELECT 'x' LIKE 'x' ESCAPE 'ab'"),
            "ESCAPE expression must be a single character");
}

}  // namespace
}  // namespace orvel
