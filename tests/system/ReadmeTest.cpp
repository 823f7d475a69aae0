// SPDX-License-Identifier: MIT
//
// What newcomers try first: the README's walk through a request, typed as it says, and the demo.

#include <filesystem>
#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using namespace std::string_literals;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;

constexpr const char* binFolder = TARNVALE_BIN_DIR "/";
constexpr const char* sourceFolder = TARNVALE_SOURCE_DIR "/";

/// Where the walk begins: what it uses has the README's names there, wherever sources and build
/// are.
constexpr const char* walkFolder = "/tmp/walk/";

/// What is typed in the private root, as one script. It waits where a person takes longer to type
/// the next line than the helper takes to start.
std::string walk() {
    constexpr std::string_view begin = "    sudo build/bin/sandbox bash\n";
    constexpr std::string_view end = "\n    exit\n";
    const std::string readme = contentOf(std::string(sourceFolder) + "README.md");
    const auto start = readme.find(begin);
    const auto stop = readme.find(end, start);
    if (start == std::string::npos || stop == std::string::npos) {
        return {};
    }
    std::string script = readme.substr(start + begin.size(), stop + 1 - start - begin.size());

    const auto replaceAll = [&script](std::string_view text, const std::string& by) {
        for (auto at = script.find(text); at != std::string::npos;
             at = script.find(text, at + by.size())) {
            script.replace(at, text.size(), by);
        }
    };
    replaceAll(" &\n", " &\nuntil [ -S " + std::string(servicePath) + " ]; do sleep 0.01; done\n");
    return "cd " + std::string(walkFolder) + "\n" + script;
}

class ReadmeTest : public testing::Test {
protected:
    void SetUp() override {
        TARNVALE_NEEDS(processes);
        if (!std::string_view(TARNVALE_SANITIZE).empty()) {
            GTEST_SKIP() << "a sanitizer has things to say that the README doesn't know of";
        }
        // Another test in this process may have been here.
        const std::string pfctl = std::string(binFolder) + "pfctl";
        if (run({pfctl, "-a", "com.apple/900.tarnvale.firewall", "-F", "rules"}).status != 0) {
            GTEST_SKIP() << "the kernel has no nf_tables";
        }
        for (const std::string& folder : {supportFolder, "/tmp/ca"s, "/tmp/examples"s}) {
            std::filesystem::remove_all(folder);
        }
    }

    /// Ends what was left running, as the end of the private root would.
    void TearDown() override {
        if (!IsSkipped()) {
            killAllOthers();
        }
    }
};

void layOutTheWalk() {
    const std::filesystem::path walk = walkFolder;
    std::filesystem::create_directories(walk / "build");
    std::filesystem::create_directory_symlink(binFolder, walk / "build/bin");
    for (const char* name : {"scripts", "examples"}) {
        std::filesystem::create_directory_symlink(std::string(sourceFolder) + name, walk / name);
    }
}

TEST_F(ReadmeTest, TheWalkThroughARequestGoesAsItSays) {
    if (!exists("/usr/bin/busctl")) {
        GTEST_SKIP() << "busctl is not installed";
    }

    layOutTheWalk();
    const Finished walked = run({"/bin/bash", "-s"}, walk());

    EXPECT_EQ(walked.status, 0);
    EXPECT_EQ(
        walked.error,
        "The helper closed the connection: it doesn't admit this program, or has too many "
        "connections already.\n"
        "Only an administrator of this Mac can make this change through Tarnvale's helper.\n");
    EXPECT_THAT(
        walked.output,
        AllOf(
            HasSubstr(helperVersion() + "\nEnforcing 1 network: Lab\n\nRuleset:\n"),
            HasSubstr("\nEnforcing 1 network: Lab\n== pf status ==\nStatus: Enabled"),
            HasSubstr("\nasas 0 1 \"No physical interface named eth9.\"\nas 0\n"),
            HasSubstr("\nnameserver 127.0.0.1\n"),
            HasSubstr(" Installed /etc/resolver/tarnvale.\n")));
}

TEST_F(ReadmeTest, TheDemoShowsWhatItPromises) {
    const Finished shown = run({TARNVALE_BIN_DIR "/tarnvale-demo"});
    if (shown.output.starts_with("No packet is sent here")) {
        GTEST_SKIP() << shown.output.substr(0, shown.output.find('\n'));
    }

    EXPECT_EQ(shown.status, 0);
    EXPECT_THAT(shown.output, EndsWith("\n57 checks passed, 0 failed\n"));
    EXPECT_EQ(shown.error, "");
}

}  // namespace
}  // namespace tarnvale::test
