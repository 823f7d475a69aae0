// SPDX-License-Identifier: MIT

#include "helperctl/Console.h"

#include <cstddef>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::helperctl {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

TEST(ConsoleTest, HasColourOnlyWhereItIsWanted) {
    std::ostringstream stream;
    Console console{.output = stream, .errors = stream};
    EXPECT_EQ(console.inked(Ink::red, "no"), "no");

    console.hasColour = true;
    EXPECT_EQ(console.inked(Ink::red, "no"), "\033[31mno\033[0m");
    EXPECT_EQ(console.inked(Ink::bold, "no"), "\033[1mno\033[0m");
    EXPECT_EQ(console.inked(Ink::plain, "no"), "no");
}

TEST(ConsoleTest, LetsNoTextReachTheTerminalAsACommand) {
    EXPECT_EQ(printable("Büro 😀 \"a\""), "Büro 😀 \"a\"");
    EXPECT_EQ(printable("\033[2J\a\n\r\t\x7F"), "\\u001b[2J\\u0007\\u000a\\u000d\\u0009\\u007f");
    EXPECT_EQ(printable("\u009B1m\u0085"), "\\u009b1m\\u0085");
    EXPECT_EQ(
        printable("a\u202Eb\u202C\u2066\u2069\u200F\u2028"),
        "a\\u202eb\\u202c\\u2066\\u2069\\u200f\\u2028");
    EXPECT_EQ(printable("\xFF\xC2"), "\uFFFD\uFFFD");
    EXPECT_EQ(printable(std::string(1, '\0')), "\\u0000");
}

TEST(ConsoleTest, KeepsTheLinesOfATextThatHasThem) {
    EXPECT_EQ(printableLines("\none\033[2J\r\ntwo\n\n"), "\none\\u001b[2J\\u000d\ntwo\n\n");
    EXPECT_EQ(printableLines("one"), "one");
    EXPECT_EQ(printableLines(""), "");
}

TEST(ConsoleTest, BreaksLinesThatAreTooLong) {
    const std::string word(38, 'w');
    EXPECT_THAT(wrapped(word + " " + word + " end", 3), ElementsAre(word + " " + word, "end"));
    EXPECT_THAT(wrapped(word + " " + word + " end", 4), ElementsAre(word, word + " end"));
    EXPECT_THAT(
        wrapped("a " + std::string(90, 'x') + " y", 0),
        ElementsAre("a", std::string(80, 'x'), std::string(10, 'x') + " y"));
    EXPECT_THAT(
        wrapped("研究室のネットワーク", 0, 7), ElementsAre("研究室", "のネッ", "トワー", "ク"));
    EXPECT_THAT(wrapped("a\n\nb", 0), ElementsAre("a", "", "b"));
    EXPECT_THAT(wrapped("", 0), ElementsAre(""));
}

TEST(ConsoleTest, BreaksAWordOfManyLinesInLinearTime) {
    constexpr std::size_t length = 400'000;

    EXPECT_THAT(wrapped(std::string(length, 'x'), 0, 1), SizeIs(length));
}

TEST(ConsoleTest, WritesFurtherLinesFurtherIn) {
    const std::string word(38, 'w');
    std::ostringstream stream;
    writeWrapped(stream, word + " " + word, 2);
    writeWrapped(stream, word + " " + word + " end", 2);

    EXPECT_EQ(stream.str(), "  " + word + " " + word + "\n  " + word + "\n    " + word + " end\n");
}

TEST(ConsoleTest, CutsOffWhatDoesNotFit) {
    EXPECT_EQ(fitted("Büro", 4), "Büro");
    EXPECT_EQ(fitted("Büros", 4), "Bür…");
    EXPECT_EQ(fitted("研究室", 5), "研究…");
    EXPECT_EQ(fitted("研究室", 4), "研…");
}

TEST(ConsoleTest, CountsColumns) {
    EXPECT_EQ(columnsOf("Büro€"), 5U);
    EXPECT_EQ(columnsOf("Bu\u0308ro"), 4U);
    EXPECT_EQ(columnsOf("研究室😀"), 8U);
    EXPECT_EQ(columnsOf("\xFF\xFF"), 2U);
}

TEST(ConsoleTest, CountsThings) {
    EXPECT_EQ(counted(0, "rule"), "0 rules");
    EXPECT_EQ(counted(1, "rule"), "1 rule");
    EXPECT_EQ(counted(2, "rule"), "2 rules");
}

}  // namespace
}  // namespace tarnvale::helperctl
