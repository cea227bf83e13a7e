#include "tools/cli/table.h"

#include <gtest/gtest.h>

#include <sstream>

namespace orvel::cli {
namespace {

TEST(Table, CutsLongCellsByCharactersAndAlignsColumns) {
  EXPECT_EQ(fit("Bj\xC3\xB6rk", 5), "Bj\xC3\xB6rk");
  EXPECT_EQ(fit("Bj\xC3\xB6rk Guðmundsdóttir", 4), "Bj\xC3\xB6\xE2\x80\xA6");
  Table t({{"ID", 5, true}, {"ARTIST", 6}, {"TITLE", 10}});
  t.add({"7", "Bj\xC3\xB6rk", "Joga"});
  t.add({"1234", "Aphex Twin", "Xtal"});
  std::ostringstream out;
  t.print(out);
  EXPECT_EQ(out.str(),
            "  ID  ARTIST  TITLE\n"
            "   7  Bj\xC3\xB6rk   Joga\n"
            "1234  Aphex\xE2\x80\xA6  Xtal\n");
}

}  // namespace
}  // namespace orvel::cli
