// Cells of a picture.

#include "tools/vorn/top/screen.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using vorn_cli::Screen;
using vorn_cli::Style;

namespace {

TEST(Screen, CutsWhatIsBeyondItsEdges) {
    Screen screen(5, 2);
    EXPECT_EQ(screen.put(0, 3, "abcdef"), 5);
    screen.put(1, -2, "abcd");
    screen.put(-1, 0, "x");
    screen.put(2, 0, "x");
    screen.put_glyph(0, 5, U'x');
    EXPECT_THAT(screen.lines(), ElementsAre("   ab", "cd"));
}

TEST(Screen, TextEndsBeforeAColumnOfItsOwn) {
    Screen screen(8, 1);
    EXPECT_EQ(screen.put(0, 1, 4, "abcdef"), 4);
    EXPECT_THAT(screen.lines(), ElementsAre(" abc"));
    EXPECT_EQ(screen.put(0, 6, 4, "abc"), 6) << "no room at all";
    EXPECT_THAT(screen.lines(), ElementsAre(" abc"));
}

TEST(Screen, PutsTextToTheRightAndCutsItsBeginning) {
    Screen screen(6, 3);
    screen.put_right(0, 0, 6, "12");
    screen.put_right(1, 3, 6, "12345");
    screen.put_right(2, 6, 3, "12");
    EXPECT_THAT(screen.lines(), ElementsAre("    12", "   345", ""));
}

TEST(Screen, NothingThatATerminalWouldObeyGetsIn) {
    Screen screen(6, 1);
    screen.put(0, 0, "a\x1b[\n\xff\x7f");
    EXPECT_THAT(screen.lines(), ElementsAre("a?[???"));
}

TEST(Screen, GlyphsAreWrittenInUtf8) {
    Screen screen(4, 1);
    screen.put_glyph(0, 0, U'\u2588');
    screen.put_glyph(0, 1, U'\u00e9');
    screen.put_glyph(0, 2, U'x');
    EXPECT_THAT(screen.lines(), ElementsAre("\u2588\u00e9x"));
}

TEST(Screen, RestyleLeavesTheGlyphs) {
    Screen screen(4, 1);
    screen.put(0, 0, "abcd", Style::kBold);
    screen.restyle(0, 1, 9, Style::kChosen);
    EXPECT_THAT(screen.lines(), ElementsAre("abcd"));
    EXPECT_EQ(screen.at(0, 0).style, Style::kBold);
    EXPECT_EQ(screen.at(0, 1).style, Style::kChosen);
    EXPECT_EQ(screen.at(0, 3).style, Style::kChosen);
}

TEST(Screen, WithoutSizeHoldsNothing) {
    for (const auto& [width, height] : {std::pair{0, 0}, {-3, 4}, {4, -3}, {0, 5}}) {
        Screen screen(width, height);
        screen.put(0, 0, "x");
        screen.put_glyph(0, 0, U'x');
        for (const std::string& line : screen.lines()) {
            EXPECT_EQ(line, "");
        }
    }
}

} // namespace
