#include "core/text/key_names.h"

#include <gtest/gtest.h>

#include <set>

namespace orvel {
namespace {

using N = KeyColor::Notation;

TEST(KeyColor, TableAndLookups) {
  EXPECT_EQ(KeyColor::table().size(), 34u);
  EXPECT_EQ(KeyColor::camelot("G#m"), (CamelotKey{1, true}));
  EXPECT_EQ(KeyColor::camelot("Abm"), (CamelotKey{1, true}));
  EXPECT_EQ(KeyColor::camelot("C"), (CamelotKey{8, false}));
  EXPECT_EQ(KeyColor::camelot("e"), (CamelotKey{12, false}));
  for (const char* missing : {"Cb", "Fb", "E#", "B#", "", "H", "13A", "0B", "8C"})
    EXPECT_FALSE(KeyColor::camelot(missing)) << missing;
  // Keys already in wheel form read back to the same place.
  EXPECT_EQ(KeyColor::camelot("8a"), (CamelotKey{8, true}));
  EXPECT_EQ(KeyColor::camelot("1d"), (CamelotKey{8, false}));
  EXPECT_EQ(KeyColor::camelot("6d"), (CamelotKey{1, false}));

  // Every table name's standard spelling is itself in the table, at the same place,
  // and the 24 positions each have exactly one canonical name.
  std::set<std::string> canonical;
  for (const auto& [name, pos] : KeyColor::table()) {
    const std::string std = KeyColor::standardName(pos);
    EXPECT_EQ(KeyColor::camelot(std), pos) << name;
    canonical.insert(std);
  }
  EXPECT_EQ(canonical.size(), 24u);
}

TEST(KeyColor, LabelsInEachNotation) {
  EXPECT_EQ(KeyColor::label("abm", N::standard), "G#m");
  EXPECT_EQ(KeyColor::label("Am", N::camelot), "8A");
  EXPECT_EQ(KeyColor::label("C", N::openKey), "1d");
  EXPECT_EQ(KeyColor::label("Am", N::openKey), "1m");
  EXPECT_EQ(KeyColor::label("B", N::openKey), "6d");
  EXPECT_EQ(KeyColor::label("C#m", N::openKey), "5m");  // 12A
  EXPECT_EQ(KeyColor::label("Am", N::both), "Am  \u00b7  8A");
  EXPECT_EQ(KeyColor::label("", N::both), "");
  EXPECT_EQ(KeyColor::label("Cb", N::camelot), "Cb");
  EXPECT_EQ(KeyColor::label("8A", N::standard), "Am");

  EXPECT_EQ(KeyColor::notation("openKey"), N::openKey);
  EXPECT_EQ(KeyColor::notation("OpenKey"), N::standard);
  EXPECT_EQ(KeyColor::notation(""), N::standard);
}

TEST(KeyColor, ColoursFollowTheWheel) {
  std::set<std::tuple<int, int, int>> seen;
  for (int n = 1; n <= 12; ++n)
    for (bool minor : {true, false}) {
      auto c = KeyColor::color(CamelotKey{n, minor});
      ASSERT_TRUE(c);
      seen.insert({c->r, c->g, c->b});
    }
  EXPECT_EQ(seen.size(), 24u);
  auto a = *KeyColor::color("Am"), b = *KeyColor::color("C");
  EXPECT_GT(a.r + a.g + a.b, b.r + b.g + b.b);  // minor lighter than its major
  EXPECT_FALSE(KeyColor::color("Cb"));
  EXPECT_FALSE(KeyColor::color(CamelotKey{13, false}));
}

TEST(MusicKey, TransposeWrapsAndKeepsTheForm) {
  EXPECT_EQ(MusicKey::transpose("Am", 3), "Cm");
  EXPECT_EQ(MusicKey::transpose("C", 1), "Db");
  EXPECT_EQ(MusicKey::transpose("B", 1), "C");
  EXPECT_EQ(MusicKey::transpose("C", -1), "B");
  EXPECT_EQ(MusicKey::transpose("F#m", 24), "F#m");
  EXPECT_EQ(MusicKey::transpose("Bbm", -13), "Am");
  EXPECT_EQ(MusicKey::transpose("8A", 7), "9A");  // a fifth up is a step round
  EXPECT_EQ(MusicKey::transpose("1d", 2), "3d");
  EXPECT_EQ(MusicKey::transpose("not a key", 2), "not a key");
  EXPECT_EQ(MusicKey::transpose("", 2), "");
}

TEST(TidyBPM, NumbersTidiedTextKept) {
  EXPECT_EQ(tidyBPM("128.0"), "128");
  EXPECT_EQ(tidyBPM(" 128 "), "128");
  EXPECT_EQ(tidyBPM("127.46"), "127.5");
  EXPECT_EQ(tidyBPM("99.95"), "100.0");
  EXPECT_EQ(tidyBPM("abc"), "abc");
  EXPECT_EQ(tidyBPM(" 12x "), " 12x ");
  EXPECT_EQ(tidyBPM("  "), "  ");
}

}  // namespace
}  // namespace orvel
