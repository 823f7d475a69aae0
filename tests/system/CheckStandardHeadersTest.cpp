// SPDX-License-Identifier: MIT
//
// scripts/check-standard-headers finds names of the standard library that come with no header of
// theirs, and takes nothing else for one.

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

class CheckStandardHeadersTest : public testing::Test {
protected:
    /// What the script says of the files.
    Finished check() const {
        std::string sources;
        for (const auto& [name, content] : files) {
            put("/tmp/tree/" + name, content);
            sources += name + '\n';
        }
        return run(
            {"/bin/sh",
             "-c",
             "cd /tmp/tree && exec \"$0\"",
             TARNVALE_SOURCE_DIR "/scripts/check-standard-headers"},
            sources);
    }

    void expectProblem(const std::string& sentence) const {
        const Finished checked = check();

        EXPECT_EQ(checked.output, sentence + "\n");
        EXPECT_EQ(checked.error, "");
        EXPECT_EQ(checked.status, 1);
    }

    void expectNone() const {
        const Finished checked = check();

        EXPECT_EQ(checked.output + checked.error, "");
        EXPECT_EQ(checked.status, 0);
    }

    std::map<std::string, std::string> files;
};

TEST_F(CheckStandardHeadersTest, HasNothingToSayOfWhatIsIncluded) {
    files["a/A.cpp"] = "#include <string>\n#include <vector>\nstd::vector<std::string> names;\n";

    expectNone();
}

TEST_F(CheckStandardHeadersTest, FindsWhatNothingIncludes) {
    files["a/A.cpp"] = "#include <string>\n\nstd::string a;\nstd::optional<int> b, c;\n";

    expectProblem("a/A.cpp:4: std::optional: nothing here includes <optional>");
}

TEST_F(CheckStandardHeadersTest, TakesAnyHeaderThatDeclaresAName) {
    files["a/A.cpp"] = "#include <cstring>\nstd::size_t a;\n";
    files["a/B.cpp"] = "#include <string>\nstd::size_t a;\n";

    expectProblem(
        "a/B.cpp:2: std::size_t: nothing here includes <cstddef> or <cstdio> or <cstdlib> or "
        "<cstring> or <ctime>");
}

TEST_F(CheckStandardHeadersTest, TakesWhatHeadersOfOursInclude) {
    files["a/A.cpp"] = "#include \"a/A.h\"\nstd::set<int> a;\n";
    files["a/A.h"] = "#include \"b/B.h\"\n";
    files["b/B.h"] = "#include <set>\n#include \"a/A.h\"\n";

    expectNone();
}

TEST_F(CheckStandardHeadersTest, KnowsWhatHeadersBring) {
    files["a/A.cpp"] =
        "#include <fstream>\n#include <vector>\n"
        "std::ios a; std::initializer_list<int> b; auto c = std::size(b);\n";

    expectNone();
}

TEST_F(CheckStandardHeadersTest, KnowsTheNamespacesInIt) {
    files["a/A.cpp"] = "#include <thread>\nvoid f() { std::this_thread::sleep_for(a); }\n";
    files["a/B.cpp"] = "#include <thread>\nstd::chrono::seconds a;\n";

    expectProblem("a/B.cpp:2: std::chrono: nothing here includes <chrono>");
}

TEST_F(CheckStandardHeadersTest, LooksNeitherIntoCommentsNorIntoTexts) {
    files["a/A.cpp"] =
        "// std::map\n/* std::map\n*/ auto a = \"\\\"std::map\"; auto b = '\"';\n"
        "auto c = R\"(\" std::map)\"; auto d = R\"x()\" std::map)x\";\n";

    expectNone();
}

TEST_F(CheckStandardHeadersTest, LooksBehindThem) {
    files["a/A.cpp"] = "/*\n*/ auto b = '\"'; auto c = R\"(\n)\"; std::map<a> d;\n";

    expectProblem("a/A.cpp:3: std::map: nothing here includes <map>");
}

TEST_F(CheckStandardHeadersTest, TakesNoSeparatorOfDigitsForAQuote) {
    files["a/A.cpp"] = "int a = 1'000; std::map<a> b; int c = 1'000;\n";

    expectProblem("a/A.cpp:1: std::map: nothing here includes <map>");
}

TEST_F(CheckStandardHeadersTest, WantsToKnowEveryName) {
    files["a/A.cpp"] = "#include <string>\nauto a = std::brand_new;\n";

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
