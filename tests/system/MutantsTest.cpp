// SPDX-License-Identifier: MIT
//
// scripts/mutants in a small repository: what it says of defects that are caught, missed,
// equivalent or unusable, and what it need not find again. Programs that only pretend to build and
// test stand in for CMake's: a defect is a word in unit/Limit, which a test may or may not look
// for.

#include <cstddef>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* repository = "/tmp/mutants/sources";

std::string file(const std::string& name) {
    return std::string(repository) + "/" + name;
}

/// A defect that makes another word of the one in the file, such as the limit.
void putDefect(
    const std::string& name,
    const std::string& word,
    const std::string& header = "",
    const std::string& changed = "unit/Limit") {
    std::string difference =
        "diff --git a/FILE b/FILE\n--- a/FILE\n+++ b/FILE\n@@ -1 +1 @@\n-right\n+";
    for (std::size_t place = 0; (place = difference.find("FILE", place)) != std::string::npos;) {
        difference.replace(place, 4, changed);
    }
    put(file("tests/mutants/" + name + ".patch"),
        "It would do harm.\n" + header + "\n" + difference + word + "\n");
}

class MutantsTest : public testing::Test {
protected:
    void SetUp() override {
        if (!exists("/usr/bin/git")) {
            GTEST_SKIP() << "git is not installed";
        }
        fs::remove_all("/tmp/mutants");
        for (const char* name : {"scripts/mutants", "scripts/planting"}) {
            const auto copy = fs::path(file(name));
            fs::create_directories(copy.parent_path());
            fs::copy_file(fs::path(TARNVALE_SOURCE_DIR) / name, copy);
        }
        put(file(".gitignore"), "build/\n");
        put(file("unit/Limit"), "right\n");
        put(file("room/inner/Text"), "right\n");
        put(file("room/other/Text"), "right\n");
        put(file("papers/Text"), "right\n");
        fs::create_directories(file("tests/mutants"));
        fs::create_directories(file("tests/macos/mutants"));

        // They are called as "cmake … -B BUILD …", "ninja -C BUILD …" and "ctest --test-dir FOLDER
        // …".
        putScript(
            "/tmp/mutants/bin/cmake",
            "mkdir -p \"$6/unit\" \"$6/room/other\"\n"
            "touch \"$6/build.ninja\" \"$6/CTestTestfile.cmake\" \"$6/unit/CTestTestfile.cmake\" "
            "\"$6/room/other/CTestTestfile.cmake\"\n");
        putScript(
            "/tmp/mutants/bin/ninja",
            "echo \"$*\" >>/tmp/mutants/built\ncd \"$2\"\n"
            "if grep -q unreadable ../../unit/Limit; then exit 1; fi\n"
            "cp /tmp/mutants/unit_test unit/unit_test\n");
        putScript(
            "/tmp/mutants/unit_test",
            "cd /tmp/mutants/sources/build/mutants/tests\n"
            "! grep -q direct unit/Limit || { echo '[  FAILED  ] LimitTest.IsKept (0 ms)'; exit 1; "
            "}\n"
            "[[ $* != *NoMore* ]] || { echo '[  PASSED  ] 0 tests.'; exit; }\n"
            "echo '[       OK ] LimitTest.IsKept (0 ms)'\n");
        putScript(
            "/tmp/mutants/bin/ctest",
            "cd /tmp/mutants/sources/build/mutants/tests\n"
            "[[ $* != *' -N' ]] || { echo 'Total Tests: 9'; exit; }\n"
            "case $2 in\n*/unit/) word=related ;;\n*/room/other/) word=neighbour ;;\n"
            "*) word='related\\|distant' ;;\nesac\n"
            "! grep -q \"$word\" unit/Limit room/inner/Text || {\n"
            "printf 'The following tests FAILED:\\n\\t  7 - WholeTest.Works (Failed)\\n'\nexit "
            "8\n}\n"
            "echo '1/9 Test #7: WholeTest.Works ...   Passed    0.01 sec'\n");
        run({"/usr/bin/git", "-C", repository, "init", "--quiet"});
    }

    static Finished mutants(const std::string& arguments = "") {
        return run(
            {"/usr/bin/env",
             "PATH=/tmp/mutants/bin:/usr/bin:/bin",
             "/bin/bash",
             "-c",
             file("scripts/mutants") + " " + arguments});
    }

    static constexpr const char* directly =
        "\nCaught by: unit_test --gtest_filter=LimitTest.IsKept\n";
};

TEST_F(MutantsTest, NamesTheTestThatCatchesADefect) {
    putDefect("a-named", "direct", directly);
    putDefect("b-related", "related");
    putDefect("c-distant", "distant", directly);

    const auto planted = mutants();

    EXPECT_EQ(planted.error, "");
    EXPECT_EQ(
        planted.output,
        "a-named: caught by LimitTest.IsKept\n"
        "b-related: caught by WholeTest.Works\n"
        "c-distant: caught by WholeTest.Works\n"
        "mutants: 3 of 3 defects caught (0 equivalent)\n");
    EXPECT_EQ(planted.status, 0);
    EXPECT_EQ(contentOf(file("unit/Limit")), "right\n");
    EXPECT_EQ(contentOf(file("build/mutants/tests/unit/Limit")), "right\n");
}

TEST_F(MutantsTest, RunsEachCheckThatADefectNames) {
    putDefect("named-twice", "related", std::string(directly) + "Caught by: unit/\n");

    EXPECT_EQ(
        mutants("--related").output,
        "named-twice: caught by WholeTest.Works\nmutants: 1 of 1 defects caught (0 equivalent)\n");
}

TEST_F(MutantsTest, TakesTheTestsOfTheRoomForAFolderThatHasNone) {
    putDefect("inside", "neighbour", "", "room/inner/Text");

    EXPECT_EQ(
        mutants("--related").output,
        "inside: caught by WholeTest.Works\nmutants: 1 of 1 defects caught (0 equivalent)\n");
}

TEST_F(MutantsTest, SaysIfNoTestBelongsToADefect) {
    putDefect("of-papers", "subtle", "", "papers/Text");
    putDefect("of-the-past", "subtle", "\nCaught by: unit_test --gtest_filter=LimitTest.NoMore\n");

    const auto planted = mutants();

    EXPECT_EQ(
        planted.output,
        "of-papers: error: papers has no tests\n"
        "of-the-past: error: unit_test --gtest_filter=LimitTest.NoMore runs no test\n"
        "mutants: 0 of 0 defects caught (0 equivalent; in error: of-papers of-the-past)\n");
    EXPECT_EQ(planted.status, 1);
}

TEST_F(MutantsTest, FailsForADefectThatIsMissed) {
    putDefect("caught", "related");
    putDefect("unseen", "subtle");

    const auto planted = mutants();

    EXPECT_EQ(
        planted.output,
        "caught: caught by WholeTest.Works\n"
        "unseen: missed\n"
        "mutants: 1 of 2 defects caught; missed: unseen (0 equivalent)\n");
    EXPECT_EQ(planted.status, 1);
}

TEST_F(MutantsTest, NeverCountsWhatCannotBePlantedAsCaught) {
    putDefect("compiles-no-more", "unreadable");
    putDefect("fits-no-more", "direct");
    const auto path = file("tests/mutants/fits-no-more.patch");
    auto patch = contentOf(path);
    put(path, patch.replace(patch.find("-right"), 6, "-left"));

    const auto planted = mutants();

    EXPECT_EQ(
        planted.output,
        "compiles-no-more: error: it can't be compiled\n"
        "fits-no-more: error: it is not for the sources as they are\n"
        "mutants: 0 of 0 defects caught (0 equivalent; in error: compiles-no-more fits-no-more)\n");
    EXPECT_EQ(planted.status, 1);
}

TEST_F(MutantsTest, NeitherPlantsNorCountsAnEquivalentOne) {
    putDefect("same", "subtle", "\nEquivalent: nobody can tell.\n");

    const auto planted = mutants();

    EXPECT_EQ(
        planted.output,
        "same: equivalent: nobody can tell.\nmutants: 0 of 0 defects caught (1 equivalent)\n");
    EXPECT_EQ(planted.status, 0);
}

TEST_F(MutantsTest, TakesNamesAndPatterns) {
    putDefect("store-lock", "related");
    putDefect("store-mode", "related");
    putDefect("vlan-tag", "related");
    putDefect("vlan-name", "related");

    const auto planted = mutants("'store-*' vlan-tag.patch vlan-tag");

    EXPECT_EQ(
        planted.output,
        "store-lock: caught by WholeTest.Works\n"
        "store-mode: caught by WholeTest.Works\n"
        "vlan-tag: caught by WholeTest.Works\n"
        "mutants: 3 of 3 defects caught (0 equivalent)\n");

    const auto refused = mutants("'stone-*'");

    EXPECT_EQ(refused.error, "mutants: there is no defect stone-*\n");
    EXPECT_EQ(refused.status, 1);
}

TEST_F(MutantsTest, LeavesTheWholeSuiteOutIfAskedTo) {
    putDefect("far", "distant");

    const auto near = mutants("--related");

    EXPECT_EQ(
        near.output,
        "far: missed by the tests that belong to it\n"
        "mutants: 0 of 1 defects caught; missed: far (0 equivalent)\n");
    EXPECT_EQ(near.status, 1);
    EXPECT_THAT(mutants().output, HasSubstr("far: caught by WholeTest.Works\n"));
}

TEST_F(MutantsTest, FindsOnlyWhatHasChangedAgain) {
    putDefect("caught", "related");
    putDefect("unseen", "subtle");
    const auto first = mutants();

    put("/tmp/mutants/built", "");
    EXPECT_EQ(mutants().output, first.output);
    EXPECT_EQ(contentOf("/tmp/mutants/built"), "");

    // A new source may hold the test that was missing, but takes none away.
    put(file("unit/Test"), "looks at more\n");
    EXPECT_EQ(mutants("caught").status, 0);
    EXPECT_EQ(contentOf("/tmp/mutants/built"), "");
    EXPECT_EQ(mutants("unseen").status, 1);
    EXPECT_NE(contentOf("/tmp/mutants/built"), "");
}

TEST_F(MutantsTest, TrustsNoCheckThatObjectsToSoundSources) {
    put(file("unit/Limit"), "related\n");
    putDefect("any", "direct");
    const auto path = file("tests/mutants/any.patch");
    auto patch = contentOf(path);
    put(path, patch.replace(patch.find("-right"), 6, "-related"));

    const auto refused = mutants();

    EXPECT_THAT(refused.error, HasSubstr("WholeTest.Works (Failed)\n"));
    EXPECT_EQ(
        refused.output,
        "any: error: unit/ objects to the sources as they are\n"
        "mutants: 0 of 0 defects caught (0 equivalent; in error: any)\n");
    EXPECT_EQ(refused.status, 1);
}

TEST_F(MutantsTest, ChecksQuicklyThatAllStillFit) {
    putDefect("fits", "direct");

    const auto sound = mutants("--check");

    EXPECT_EQ(sound.error, "");
    EXPECT_EQ(sound.status, 0);
    EXPECT_FALSE(exists(file("build")));

    put(file("unit/Limit"), "other\n");
    put(file("tests/macos/mutants/mute.patch"),
        "diff --git a/unit/Limit b/unit/Limit\n--- a/unit/Limit\n+++ b/unit/Limit\n"
        "@@ -1 +1 @@\n-other\n+direct\n");

    const auto refused = mutants("--check");

    EXPECT_THAT(
        refused.error,
        AllOf(
            HasSubstr("mutants: mutants/fits.patch is not for the sources as they are;"),
            HasSubstr("mutants: macos/mutants/mute.patch does not begin with a sentence"),
            Not(HasSubstr("mute.patch is not for"))));
    EXPECT_EQ(refused.status, 1);
}

}  // namespace
}  // namespace tarnvale::test
