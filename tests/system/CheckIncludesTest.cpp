// SPDX-License-Identifier: MIT
//
// scripts/check-includes finds what it is there for: includes against the table of the folders, and
// a table that is not true.

#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/system/SourceCheck.h"

namespace tarnvale::test {
namespace {

using testing::HasSubstr;

/// A small tree in which everything is right.
const std::map<std::string, std::string>& soundTree() {
    static const std::map<std::string, std::string> tree{
        {"docs/architecture.md",
         "Arrows:\n"
         "\n"
         "tests         -> *\n"
         "upper         -> lower\n"
         "upper/room    -> lower\n"
         "lower         ->\n"},
        {"tests/support/Lab.h", "#include \"upper/Upper.h\"\n"},
        {"upper/Upper.h", "#include <string>\n#include \"lower/Lower.h\"\n"},
        {"upper/UpperTest.cpp", "#include \"tests/support/Lab.h\"\n#include \"upper/Upper.h\"\n"},
        {"upper/room/Room.h", "#include \"lower/Lower.h\"\n"},
        {"lower/Lower.h", "\n"},
    };
    return tree;
}

class CheckIncludesTest : public SourceCheckTest {
protected:
    CheckIncludesTest() : SourceCheckTest(TARNVALE_SOURCE_DIR "/scripts/check-includes") {
        tree = soundTree();
    }

    std::string& table() { return tree["docs/architecture.md"]; }
};

TEST_F(CheckIncludesTest, HasNothingToSayOfASoundTree) {
    expectNoProblem();
}

TEST_F(CheckIncludesTest, FindsAnIncludeThatPointsUp) {
    tree["lower/Lower.h"] = "\n#include \"upper/Upper.h\"\n";

    expectProblem("lower/Lower.h:2: lower may not know upper (\"upper/Upper.h\")");
}

TEST_F(CheckIncludesTest, TellsAFolderFromTheOneAroundIt) {
    tree["upper/Upper.h"] += "#include \"upper/room/Room.h\"\n";

    expectProblem("upper/Upper.h:3: upper may not know upper/room (\"upper/room/Room.h\")");
}

TEST_F(CheckIncludesTest, LetsOnlyTestsKnowTheTests) {
    tree["upper/room/Room.h"] += "#include \"tests/support/Lab.h\"\n";

    expectProblem("upper/room/Room.h:2: upper/room may not know tests (\"tests/support/Lab.h\")");
}

TEST_F(CheckIncludesTest, WantsIncludesWrittenFromTheTop) {
    tree["upper/Upper.h"] += "#include \"Other.h\"\n";

    expectProblem("upper/Upper.h:3: \"Other.h\" is not written from the top of the repository");
}

TEST_F(CheckIncludesTest, FindsAnArrowThatPointsUpInTheTable) {
    table() += "side -> upper\n";
    tree["side/Side.h"] = "#include \"upper/Upper.h\"\n";

    expectProblem("docs/architecture.md: side -> upper: the arrow points up");
}

TEST_F(CheckIncludesTest, FindsAnArrowThatNoFileNeeds) {
    tree["upper/room/Room.h"] = "\n";

    expectProblem("docs/architecture.md: upper/room -> lower: no file needs the arrow");
}

TEST_F(CheckIncludesTest, FindsAFolderThatTheTableLacks) {
    tree["stray/Stray.h"] = "\n";

    expectProblem("stray/Stray.h: no line of docs/architecture.md has its folder");
}

TEST_F(CheckIncludesTest, FindsALineWithoutAFolder) {
    table() += "gone ->\n";

    expectProblem("docs/architecture.md: gone has no sources");
}

TEST_F(CheckIncludesTest, FindsALineTwice) {
    table() += "lower ->\n";

    EXPECT_THAT(check().output, HasSubstr("docs/architecture.md: lower has two lines\n"));
}

}  // namespace
}  // namespace tarnvale::test
