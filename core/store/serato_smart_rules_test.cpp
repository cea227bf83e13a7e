#include "core/store/serato_smart_rules.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>

namespace orvel {
namespace {

std::string asText(const std::optional<SmartRule>& r) {
  return r ? r->field + ":" + r->op + ":" + r->value : "none";
}

std::string rule(uint32_t field, const char* condition, std::optional<std::string> text = {},
                 std::optional<uint32_t> number = {}, std::optional<std::string> date = {}) {
  return asText(translateSeratoRule({condition, field, std::move(text), number, std::move(date)}));
}

TEST(SeratoSmartRules, EveryTestOnAFieldOrvelKeepsMaps) {
  EXPECT_EQ(rule(9, "cond_con_str", "House"), "genre:contains:House");
  EXPECT_EQ(rule(9, "cond_dnc_str", "Techno"), "genre:notContains:Techno");
  EXPECT_EQ(rule(7, "cond_notcon_str", "DJ"), "artist:notContains:DJ");
  EXPECT_EQ(rule(6, "cond_bgn_str", "The"), "title:startsWith:The");
  EXPECT_EQ(rule(8, "cond_end_str", "EP"), "album:endsWith:EP");
  EXPECT_EQ(rule(51, "cond_is_str", "8A"), "key:is:8A");
  EXPECT_EQ(rule(15, "cond_greq_uint", {}, 124u), "bpm:atLeast:124");
  EXPECT_EQ(rule(15, "cond_lseq_uint", {}, 128u), "bpm:atMost:128");
  EXPECT_EQ(rule(15, "cond_grt_int", {}, 120u), "bpm:gt:120");
  EXPECT_EQ(rule(23, "cond_les_int", {}, 2000u), "year:lt:2000");
  EXPECT_EQ(rule(25, "cond_itl_time", "weeks", 2u), "dateAdded:inLast:14");
  EXPECT_EQ(rule(25, "cond_itl_time", {}, 10u), "dateAdded:inLast:10");
}

TEST(SeratoSmartRules, WhatDoesNotMapKeepsTheWholeCrateAsSeratoListedIt) {
  EXPECT_EQ(rule(4, "cond_con_str", "mix"), "none");      // file name: not a smart field
  EXPECT_EQ(rule(99, "cond_con_str", "x"), "none");       // a field nobody knows
  EXPECT_EQ(rule(9, "cond_sounds_like", "x"), "none");    // a test nobody knows
  EXPECT_EQ(rule(15, "cond_greq_uint"), "none");          // no value
  EXPECT_EQ(rule(25, "cond_nitl_time", {}, 3u), "none");  // no "not in the last"
  EXPECT_EQ(rule(25, "cond_aft_time", {}, {}, "03/04/2024"), "none");  // 3 April or 4 March?

  SeratoCrate crate;
  crate.isSmart = true;
  crate.nameChain = {"Sets", "Peak"};
  crate.matchAll = false;
  crate.rules = {{"cond_greq_uint", 15, {}, 124u, {}}, {"cond_con_str", 20, "Edit", {}, {}}};
  const SeratoSmartTranslation partly = translateSeratoSmartCrate(crate);
  EXPECT_FALSE(partly.playlist);
  EXPECT_EQ(partly.untranslated, "Remixer contains \u201CEdit\u201D");
  crate.rules.pop_back();
  const SeratoSmartTranslation whole = translateSeratoSmartCrate(crate);
  ASSERT_TRUE(whole.playlist);
  EXPECT_EQ(whole.playlist->name, "Peak");
  EXPECT_FALSE(whole.playlist->matchAll);
  EXPECT_FALSE(whole.playlist->problem());
}

TEST(SeratoSmartRules, DatesAreDaysInLocalTime) {
  setenv("TZ", "Pacific/Auckland", 1);
  tzset();
  std::tm tm{};
  tm.tm_year = 124;
  tm.tm_mon = 2;
  tm.tm_mday = 15;
  tm.tm_isdst = -1;
  const int64_t march15 = std::mktime(&tm);
  for (const char* text : {"2024-03-15", "2024/03/15", "15/03/2024", "15.03.2024"})
    EXPECT_EQ(seratoRuleDate(text), march15) << text;
  EXPECT_EQ(seratoRuleDate("1710460800"), 1710460800);
  EXPECT_FALSE(seratoRuleDate("2024-02-31"));
  EXPECT_FALSE(seratoRuleDate("yesterday"));
  // "After the 15th" is from the 16th on; "before" up to the 15th's start.
  EXPECT_EQ(rule(25, "cond_aft_time", {}, {}, "2024-03-15"),
            "dateAdded:gt:" + std::to_string(march15 + 86399));
  EXPECT_EQ(rule(25, "cond_bef_time", {}, {}, "2024-03-15"),
            "dateAdded:lt:" + std::to_string(march15));
  unsetenv("TZ");
  tzset();
}

}  // namespace
}  // namespace orvel
