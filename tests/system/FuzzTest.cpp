// SPDX-License-Identifier: MIT
//
// scripts/fuzz in a small repository: what it takes for arguments, what it says of a finding, and
// that no run counts in which a target didn't execute what it should begin with. A script stands in
// for the target.

#include <cstddef>
#include <filesystem>
#include <set>
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
using testing::StartsWith;

class FuzzTest : public testing::Test {
protected:
    static constexpr const char* repository = "/tmp/fuzz";

    static std::string file(const std::string& name) {
        return std::string(repository) + "/" + name;
    }

    void SetUp() override {
        fs::remove_all(repository);
        putScript(file("scripts/build"), "exit 0\n");
        fs::copy_file(fs::path(TARNVALE_SOURCE_DIR) / "scripts/fuzz", file("scripts/fuzz"));
        put(file("tests/fuzz/CMakeLists.txt"),
            "tarnvale_fuzzer(any_text_fuzzer SOURCES AnyTextFuzzer.cpp DEPENDS tarnvale_text)\n");
        put(file("tests/fuzz/corpus/any-text/seed"), "seed");
        put(file("tests/fuzz/corpus/any-text/another"), "another");
        putTarget(all() + executed(17));
    }

    static void putTarget(const std::string& script) {
        putScript(file("build/asan/fuzz/any_text_fuzzer"), script);
    }

    static std::string executed(int units) {
        return "echo 'stat::number_of_executed_units: " + std::to_string(units) + "' >&2\n";
    }

    static Finished fuzz(const std::string& arguments) {
        return run({"/bin/bash", "-c", file("scripts/fuzz") + " " + arguments});
    }

    /// What a target says that begins with all that it should.
    static std::string all() { return inputs() + beginnings(); }

    static std::string inputs() {
        return "echo 'INFO:        2 files found in tests/fuzz/corpus/any-text' >&2\n";
    }

    static std::string beginnings() {
        return "echo 'INFO:        9 files found in build/asan/beginnings/any-text' >&2\n";
    }
};

TEST_F(FuzzTest, SaysHowManyInputsEachTargetExecuted) {
    const auto done = fuzz("--run-only 5");

    EXPECT_EQ(done.output, "any-text                       17\n");
    EXPECT_EQ(done.error, "");
    EXPECT_EQ(done.status, 0);
}

// A text can end anywhere, and what is read behind its end is found only where it really ends.
TEST_F(FuzzTest, BeginsWithEveryBeginningOfItsSmallInputs) {
    put(file("tests/fuzz/corpus/any-text/another"), std::string("se\0ed", 5));
    put(file("tests/fuzz/corpus/any-text/largest"), std::string(512, 'l'));
    put(file("tests/fuzz/corpus/any-text/too-large"), std::string(513, 'x'));
    put(file("build/asan/beginnings/any-text/earlier"), "of an input that is gone");

    fuzz("--run-only 5");

    std::set<std::string> texts;
    std::size_t files = 0;
    for (const auto& entry : fs::directory_iterator(file("build/asan/beginnings/any-text"))) {
        texts.insert(contentOf(entry.path()));
        ++files;
    }
    std::set<std::string> expected{
        "s", "se", std::string("se\0", 3), std::string("se\0e", 4), "see"};
    for (std::size_t length = 1; length < 512; ++length) {
        expected.insert(std::string(length, 'l'));
    }
    EXPECT_EQ(texts, expected);
    EXPECT_EQ(files, expected.size());
}

TEST_F(FuzzTest, SaysWhatIsWrongWithItsArguments) {
    const auto refused = [](const std::string& arguments, const std::string& problem) {
        const auto done = fuzz(arguments);
        EXPECT_THAT(done.error, StartsWith("fuzz: " + problem + "\nusage: "));
        EXPECT_EQ(done.status, 2);
    };

    refused("", "for how many seconds?");
    refused("--run-only", "for how many seconds?");
    for (const std::string seconds : {"0", "1.5", "soon", "01"}) {
        refused(seconds, "SECONDS is a number greater than 0, not \"" + seconds + "\"");
    }
    refused("--jobs 0 5", "--jobs takes a number greater than 0, not \"0\"");
    refused("--jobs", "--jobs takes a number greater than 0, not \"\"");
    refused("-5", "no option -5");
    refused("5 any-text no-text", "no target \"no-text\" among: any-text");
}

TEST_F(FuzzTest, PrintsAFindingSoThatItCanBeHadFromALog) {
    const std::string finding = "build/asan/findings/any-text-crash-1";
    putTarget(
        all() + "printf 'bad\\0' >" + finding + "\necho \"$PWD; Test unit written to " + finding +
        "\" >&2\nexit 77\n");

    const auto done = fuzz("--run-only 5");

    EXPECT_THAT(
        done.output,
        AllOf(
            HasSubstr("any-text                        ?  a finding:\n"),
            HasSubstr("    base64 -d >/tmp/any-text-crash-1 <<END\nYmFkAA==\nEND\n"),
            HasSubstr("    setarch -R build/asan/fuzz/any_text_fuzzer -timeout=10 "
                      "/tmp/any-text-crash-1\n")));
    EXPECT_EQ(done.status, 1);
}

TEST_F(FuzzTest, CountsNoRunWithoutItsInputs) {
    const std::string some = "echo 'INFO: 1 files found in tests/fuzz/corpus/any-text' >&2\n";
    for (const std::string& script :
         {std::string(),
          all(),
          all() + executed(0),
          all() + executed(10),
          inputs() + executed(17),
          some + beginnings() + executed(17)}) {
        putTarget(script);

        const auto done = fuzz("--run-only 5");

        EXPECT_THAT(done.output, HasSubstr("not each of its inputs")) << script;
        EXPECT_EQ(done.status, 1) << script;
    }
}

TEST_F(FuzzTest, ChecksThatTargetsHaveFoldersAndFoldersTargets) {
    EXPECT_EQ(fuzz("--check").status, 0);

    for (int number = 2; number < 65; ++number) {
        put(file("tests/fuzz/corpus/any-text/" + std::to_string(number)), "text");
    }
    put(file("tests/fuzz/corpus/no-text/seed"), "seed");
    const auto checked = fuzz("--check");

    EXPECT_EQ(
        checked.error,
        "tests/fuzz/corpus/no-text: no target begins with these inputs\n"
        "tests/fuzz/corpus/any-text: 65 inputs, not 1 to 64\n");
    EXPECT_EQ(checked.status, 1);

    fs::remove_all(file("tests/fuzz/corpus"));
    fs::create_directories(file("tests/fuzz/corpus"));
    EXPECT_EQ(fuzz("--check").error, "tests/fuzz/corpus/any-text: 0 inputs, not 1 to 64\n");
}

}  // namespace
}  // namespace tarnvale::test
