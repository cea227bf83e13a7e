#include "core/text/visible.h"

#include <gtest/gtest.h>

namespace orvel {
namespace {

TEST(VisibleTest, TerminalControlsAndBrokenBytesAreShownNotSent) {
  // An escape sequence in a tag would recolour the terminal or clear it.
  EXPECT_EQ(visible("\x1b[2J\x1b]0;owned\x07Title"), "\\x1B[2J\\x1B]0;owned\\x07Title");
  EXPECT_EQ(visible("line\nnext\tcol\r"), "line\\nnext\\tcol\\r");
  EXPECT_EQ(visible("del\x7f"), "del\\x7F");
  // U+009B is an 8-bit CSI; as UTF-8 it is two bytes, both escaped.
  EXPECT_EQ(visible("a\xc2\x9b"
                    "31m"),
            "a\\xC2\\x9B31m");
  // A lone 0x9B (not UTF-8) is the same CSI to a terminal in an 8-bit mode.
  EXPECT_EQ(visible("a\x9b"
                    "b"),
            "a\\x9Bb");
  // Overlong and surrogate forms are not UTF-8 either.
  EXPECT_EQ(visible("\xc0\xaf"), "\\xC0\\xAF");
  EXPECT_EQ(visible("\xed\xa0\x80"), "\\xED\\xA0\\x80");
  EXPECT_EQ(visible("cut \xe2\x82"), "cut \\xE2\\x82");
  EXPECT_TRUE(needsEscaping("x\x1b"));
  EXPECT_TRUE(needsEscaping("x\xff"));
}

TEST(VisibleTest, OrdinaryTextOfAnyScriptIsKept) {
  for (const char* text : {"Été — Björk", "東京 ナイト", "🎧 a\\b 100%", ""}) {
    EXPECT_EQ(visible(text), text);
    EXPECT_FALSE(needsEscaping(text));
  }
}

}  // namespace
}  // namespace orvel
