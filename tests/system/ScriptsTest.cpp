// SPDX-License-Identifier: MIT
//
// What the project's scripts do on machines that are set up otherwise: behind a link, beside hooks
// of somebody else's, without apt. And no document has a reader sign what was built.

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Text.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/// A file of the project.
fs::path source(const std::string& name) {
    return fs::path(TARNVALE_SOURCE_DIR) / name;
}

constexpr const char* hookPath = "/tmp/hooks/pre-commit";

/// Runs a script of the project's that finds its programs in these folders only. In /tmp/search git
/// has its hooks in /tmp/hooks.
Finished runWith(const std::string& search, const std::string& script) {
    put("/tmp/search/git", "#!/bin/sh\necho /tmp/hooks\n");
    fs::permissions("/tmp/search/git", fs::perms(0755));
    return run({"/usr/bin/env", "PATH=" + search, "/bin/bash", script});
}

Finished installHooks(const fs::path& script = source("scripts/install-hooks")) {
    return runWith("/tmp/search:/usr/bin:/bin", script);
}

TEST(InstallHooksTest, MakesGitRunTheQuickChecks) {
    for (int time = 0; time < 2; ++time) {
        const auto installed = installHooks();

        EXPECT_EQ(installed.error, "");
        EXPECT_EQ(installed.output, "Installed /tmp/hooks/pre-commit.\n");
        EXPECT_THAT(contentOf(hookPath), EndsWith("\nexec scripts/check quick\n"));
        EXPECT_NE(fs::status(hookPath).permissions() & fs::perms::owner_exec, fs::perms::none);
    }
}

TEST(InstallHooksTest, LeavesAnotherHookAlone) {
    put(hookPath, "#!/bin/sh\nexit 0\n");

    const auto refused = installHooks();

    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(
        refused.error,
        "install-hooks: /tmp/hooks/pre-commit is another hook; to have both, add this line to it: "
        "scripts/check quick\n");
    EXPECT_EQ(contentOf(hookPath), "#!/bin/sh\nexit 0\n");
}

TEST(SetupTest, NamesWhatItWouldInstallWhereThereIsNoApt) {
    fs::create_directories("/tmp/search");
    for (const std::string name : {"dirname", "readlink", "uname"}) {
        fs::create_symlink("/usr/bin/" + name, "/tmp/search/" + name);
    }

    const auto refused = runWith("/tmp/search", source("scripts/setup"));

    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(
        refused.error,
        AllOf(
            StartsWith("setup: it takes Debian's apt, which is missing here; "),
            HasSubstr(" then run scripts/build: g++ cmake "),
            HasSubstr(" libgtest-dev ")));
    EXPECT_EQ(refused.output, "");
}

/// What ctest's log has of a test.
std::string logged(const std::string& output, const std::string& end) {
    return "1/9 Testing: A.Test\n1/9 Test: A.Test\nOutput:\n" + output + "<end of output>\n" + end +
           "\n";
}

TEST(TestSummaryTest, SaysOnceWhatWouldHelp) {
    const std::string skipped = "Test Pass Reason:\nSkip return code=77";
    std::string log = logged("", "Test Passed.") + logged("", "Test Failed.") +
                      logged("skipped: no mounts (more rights)\n", "Test Passed.") +
                      logged("skipped: it takes long\n", "Test Passed.") +
                      logged("skipped: no network (more rights)\n", skipped) + logged("", skipped) +
                      logged("skipped: no mounts (more rights)\n", skipped);

    const auto counted = run({source("scripts/test-summary")}, log);

    EXPECT_EQ(counted.status, 0) << counted.error;
    EXPECT_EQ(
        counted.output,
        "1 passed, 1 failed, 5 skipped: no mounts (2), no network (1): more rights; it takes long "
        "(1), no reason was given (1)\n");
}

TEST(TestSummaryTest, FailsWhereNothingWasExecuted) {
    const auto counted = run(
        {source("scripts/test-summary")}, logged("skipped: no (run it as root)\n", "Test Passed."));

    EXPECT_EQ(counted.status, 1);
    EXPECT_EQ(counted.error, "test: no test was executed\n");
    EXPECT_EQ(counted.output, "0 passed, 0 failed, 1 skipped: no (1): run it as root\n");
}

TEST(ScriptsTest, FindTheirPlaceBehindALink) {
    fs::create_symlink(source("scripts/install-hooks"), "/tmp/install-hooks");
    EXPECT_EQ(installHooks("/tmp/install-hooks").error, "");

    const fs::path plist = source("packaging/macos/daemon-plist");
    fs::create_symlink(plist, "/tmp/daemon-plist");
    const auto printed = run({"/tmp/daemon-plist"});
    EXPECT_EQ(printed.error, "");
    EXPECT_EQ(printed.output, run({plist}).output);

    // The others say it in the same words.
    for (const char* folder : {"scripts", "packaging", "tests", ".ci"}) {
        for (const auto& file : fs::recursive_directory_iterator(source(folder))) {
            const auto extension = file.path().extension();
            if (!file.is_regular_file() || extension == ".cpp" || extension == ".h") {
                continue;
            }
            const std::string content = contentOf(file.path());
            for (const auto line : support::split(content, '\n')) {
                EXPECT_EQ(line.find("dirname \"$0\""), std::string_view::npos) << file.path();
            }
        }
    }
}

TEST(StepTimesTest, NamesWhatFailedAndWhatGotSlower) {
    put("/tmp/times", "set-up 1 0\nbuild 100000 0\nnew-step 7 0\ntests 100000 8\n");

    const auto shown = run({source("scripts/step-times"), "/tmp/times"});

    EXPECT_EQ(shown.status, 0);
    EXPECT_EQ(shown.error, "");
    EXPECT_THAT(shown.output, ContainsRegex("\nset-up +1 +[0-9]+\n"));
    EXPECT_THAT(shown.output, ContainsRegex("\nnew-step +7 +-\n"));
    EXPECT_THAT(
        shown.output,
        EndsWith("\nmore than a third slower than in docs/development.md: build\nfailed: tests\n"));
}

TEST(DocumentsTest, HaveNobodySignWhatWasBuilt) {
    // The demo and the tests need it as it is.
    for (const char* document : {"README.md", "packaging/linux/README.md"}) {
        const std::string content = contentOf(source(document));
        for (const auto line : support::split(content, '\n')) {
            if (line.find("scripts/codesign ") != std::string_view::npos) {
                EXPECT_EQ(line.find("build/"), std::string_view::npos) << document << ": " << line;
            }
        }
    }
}

}  // namespace
}  // namespace tarnvale::test
