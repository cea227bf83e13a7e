#include "core/text/path_norm.h"

#include <gtest/gtest.h>

namespace orvel {
namespace {

TEST(PathNorm, ComposedDecomposedAndCaseVariantsShareOneKey) {
  const std::string precomposed = "/Music/Caf\xC3\xA9 Del Mar.mp3";  // é
  const std::string decomposed = "/Music/Cafe\xCC\x81 Del Mar.mp3";  // e + U+0301
  const std::string upper = "/MUSIC/CAF\xC3\x89 DEL MAR.MP3";        // É
  EXPECT_EQ(normalizePathKey(precomposed), "/music/caf\xC3\xA9 del mar.mp3");
  EXPECT_EQ(normalizePathKey(decomposed), normalizePathKey(precomposed));
  EXPECT_EQ(normalizePathKey(upper), normalizePathKey(precomposed));
}

TEST(PathNorm, UsesFullUnicodeCaseMappingNotAscii) {
  // Greek, Cyrillic and the dotted capital I all lower-case beyond ASCII.
  EXPECT_EQ(normalizePathKey("\xCE\x9C\xCE\x9F\xCE\xA5\xCE\xA3\xCE\x99\xCE\x9A\xCE\x97"),
            "\xCE\xBC\xCE\xBF\xCF\x85\xCF\x83\xCE\xB9\xCE\xBA\xCE\xB7");
  EXPECT_EQ(normalizePathKey("\xD0\x9C\xD0\xA3\xD0\x97\xD0\xAB\xD0\x9A\xD0\x90"),
            "\xD0\xBC\xD1\x83\xD0\xB7\xD1\x8B\xD0\xBA\xD0\xB0");
  EXPECT_EQ(normalizePathKey("\xC4\xB0"), "i\xCC\x87");
  EXPECT_EQ(normalizePathKey(""), "");
  EXPECT_EQ(lowerUnicode("\xC3\x84RGER"), "\xC3\xA4rger");
}

TEST(PathNorm, NamesThatAreNotUtf8StayDistinct) {
  // Latin-1 bytes from an old disk: two different files, two keys.
  EXPECT_EQ(normalizePathKey("/M/Caf\xE9.mp3"), "/m/caf\xE9.mp3");
  EXPECT_NE(normalizePathKey("/m/caf\xE9.mp3"), normalizePathKey("/m/caf\xE8.mp3"));
  EXPECT_EQ(normalizePathKey("/m/\xC3"), "/m/\xC3");  // cut-off sequence
}

}  // namespace
}  // namespace orvel
