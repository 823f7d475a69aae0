// SPDX-License-Identifier: MIT
//
// scripts/check-standard-headers finds names of the standard library that come with no header of
// theirs, and takes nothing else for one.

#include <gtest/gtest.h>

#include "tests/support/Program.h"
#include "tests/system/SourceCheck.h"

namespace tarnvale::test {
namespace {

class CheckStandardHeadersTest : public SourceCheckTest {
protected:
    CheckStandardHeadersTest()
        : SourceCheckTest(TARNVALE_SOURCE_DIR "/scripts/check-standard-headers") {}
};

TEST_F(CheckStandardHeadersTest, HasNothingToSayOfWhatIsIncluded) {
    tree["a/A.cpp"] = "#include <string>\n#include <vector>\nstd::vector<std::string> names;\n";

    expectNoProblem();
}

TEST_F(CheckStandardHeadersTest, FindsWhatNothingIncludes) {
    tree["a/A.cpp"] = "#include <string>\n\nstd::string a;\nstd::optional<int> b, c;\n";

    expectProblem("a/A.cpp:4: std::optional: nothing here includes <optional>");
}

TEST_F(CheckStandardHeadersTest, TakesAnyHeaderThatDeclaresAName) {
    tree["a/A.cpp"] = "#include <cstring>\nstd::size_t a;\n";
    tree["a/B.cpp"] = "#include <string>\nstd::size_t a;\n";

    expectProblem(
        "a/B.cpp:2: std::size_t: nothing here includes <cstddef> or <cstdio> or <cstdlib> or "
        "<cstring> or <ctime>");
}

TEST_F(CheckStandardHeadersTest, TakesWhatHeadersOfOursInclude) {
    tree["a/A.cpp"] = "#include \"a/A.h\"\nstd::set<int> a;\n";
    tree["a/A.h"] = "#include \"b/B.h\"\n";
    tree["b/B.h"] = "#include <set>\n#include \"a/A.h\"\n";

    expectNoProblem();
}

TEST_F(CheckStandardHeadersTest, KnowsWhatHeadersBring) {
    tree["a/A.cpp"] =
        "#include <fstream>\n#include <vector>\n"
        "std::ios a; std::initializer_list<int> b; auto c = std::size(b);\n";

    expectNoProblem();
}

TEST_F(CheckStandardHeadersTest, KnowsTheNamespacesInIt) {
    tree["a/A.cpp"] = "#include <thread>\nvoid f() { std::this_thread::sleep_for(a); }\n";
    tree["a/B.cpp"] = "#include <thread>\nstd::chrono::seconds a;\n";

    expectProblem("a/B.cpp:2: std::chrono: nothing here includes <chrono>");
}

TEST_F(CheckStandardHeadersTest, LooksNeitherIntoCommentsNorIntoTexts) {
    tree["a/A.cpp"] =
        "// std::map\n/* std::map\n*/ auto a = \"\\\"std::map\"; auto b = '\"';\n"
        "auto c = R\"(\" std::map)\"; auto d = R\"x()\" std::map)x\";\n";

    expectNoProblem();
}

TEST_F(CheckStandardHeadersTest, LooksBehindThem) {
    tree["a/A.cpp"] = "/*\n*/ auto b = '\"'; auto c = R\"(\n)\"; std::map<a> d;\n";

    expectProblem("a/A.cpp:3: std::map: nothing here includes <map>");
}

TEST_F(CheckStandardHeadersTest, TakesNoSeparatorOfDigitsForAQuote) {
    tree["a/A.cpp"] = "int a = 1'000; std::map<a> b; int c = 1'000;\n";

    expectProblem("a/A.cpp:1: std::map: nothing here includes <map>");
}

TEST_F(CheckStandardHeadersTest, WantsToKnowEveryName) {
    tree["a/A.cpp"] = "#include <string>\nauto a = std::brand_new;\n";

    expectProblem(
        "a/A.cpp:2: std::brand_new: scripts/check-standard-headers doesn't know which header "
        "declares it");
}

TEST_F(CheckStandardHeadersTest, SaysWhichSourceItCannotRead) {
    const Finished checked =
        run({"/bin/sh", "-c", "exec \"$0\"", TARNVALE_SOURCE_DIR "/scripts/check-standard-headers"},
            "/nowhere.cpp\n");

    EXPECT_EQ(checked.error, "check-standard-headers: /nowhere.cpp: No such file or directory\n");
    EXPECT_NE(checked.status, 0);
}

}  // namespace
}  // namespace tarnvale::test
