// SPDX-License-Identifier: MIT
//
// What newcomers try first: the README's walk through a request, typed as it says, and the demo.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include "support/Text.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/Spans.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;

constexpr const char* binFolder = TARNVALE_BIN_DIR "/";
constexpr const char* sourceFolder = TARNVALE_SOURCE_DIR "/";

/// Where the walk begins: what it uses has the README's names there, wherever sources and build
/// are.
constexpr const char* walkFolder = "/tmp/walk";

/// The indented blocks of the README's walk: how the sandbox is entered, and what is pasted there.
/// Empty when the README has no such walk.
std::vector<std::string> walkBlocks() {
    const std::string readme = contentOf(std::string(sourceFolder) + "README.md");
    const auto start = readme.find("\n## A request by hand\n");
    const auto stop = readme.find("\nWithout the service,", start);
    if (start == std::string::npos || stop == std::string::npos) {
        return {};
    }
    return blocksOf(readme.substr(start, stop - start));
}

/// A command that the README shows, and what it prints there.
struct ShownCommand {
    std::string command;
    std::string output;
};

/// The commands behind "$" in indented blocks.
std::vector<ShownCommand> shownCommands() {
    constexpr std::string_view indent = "    ";
    constexpr std::string_view prompt = "    $ ";
    const std::string readme = contentOf(std::string(sourceFolder) + "README.md");
    std::vector<ShownCommand> commands;
    bool isOutput = false;
    for (const auto line : support::split(readme, '\n')) {
        if (line.starts_with(prompt)) {
            commands.push_back({.command = std::string(line.substr(prompt.size())), .output = {}});
            isOutput = true;
        } else if (isOutput && (line.empty() || line.starts_with(indent))) {
            commands.back().output +=
                std::string(line.substr(std::min(indent.size(), line.size()))) + "\n";
        } else {
            isOutput = false;
        }
    }
    for (auto& [command, output] : commands) {
        output.erase(output.find_last_not_of('\n') + 2);
    }
    return commands;
}

/// The text with another in one place.
std::string replaced(std::string text, std::string_view from, std::string_view to) {
    return text.replace(text.find(from), from.size(), to);
}

/// The number of the first process of that program; nothing when none runs.
std::optional<pid_t> processOf(const std::string& program) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::error_code ended;
        if (fs::read_symlink(entry.path() / "exe", ended) == program) {
            return std::stoi(entry.path().filename());
        }
    }
    return std::nullopt;
}

/// Ends the helper as its idle end does: whatever comes next finds none.
void endHelper() {
    if (const auto helper = processOf(helperProgram)) {
        ::kill(*helper, SIGKILL);
        while (processOf(helperProgram)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

constexpr const char* turnedAway =
    "The helper closed the connection: it doesn't admit this program, or has too many "
    "connections already.\n";

/// Where there are no other users.
constexpr const char* notActing = "Could not act as \"nobody\": Operation not permitted.\n";

/// What the walk prints, by its best known lines.
auto isTheWalks() {
    return AllOf(
        HasSubstr(helperVersion() + "\nEnforcing 1 network: Lab\n\nRuleset:\n"),
        HasSubstr("\nEnforcing 1 network: Lab\npf is on. The helper enforces 1 network.\n"),
        HasSubstr("\n== pf status ==\nStatus: Enabled"),
        HasSubstr("\nasas 0 1 \"No physical interface named eth9.\"\nas 0\n"),
        HasSubstr("\nnameserver 127.0.0.1\n"),
        HasSubstr(" Installed /etc/resolver/tarnvale.\n"));
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
        const auto flushed = run({pfctl, "-a", "com.apple/900.tarnvale.firewall", "-F", "rules"});
        if (flushed.status != 0) {
            GTEST_SKIP() << flushed.error.substr(0, flushed.error.find('\n'));
        }
        for (const std::string& folder : {supportFolder, "/tmp/ca"s, "/tmp/examples"s}) {
            fs::remove_all(folder);
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
    fs::create_directories(fs::path(walkFolder) / "build");
    fs::create_directory_symlink(binFolder, fs::path(walkFolder) / "build/bin");
    for (const char* name : {"scripts", "examples"}) {
        fs::create_directory_symlink(std::string(sourceFolder) + name, fs::path(walkFolder) / name);
    }
}

/// Pastes the text into a shell in the walk's folder.
Finished paste(const std::vector<std::string>& shell, const std::string& text) {
    fs::current_path(walkFolder);
    return run(shell, text);
}

/// What is newer than the file, wherever the walk writes; not in the project's own folder, where
/// ctest writes meanwhile.
std::string changedSince(const std::string& stamp) {
    return run({"/usr/bin/find",
                "/etc",
                "/usr/sbin",
                "/usr/local",
                "/var/log",
                "/opt",
                "/run",
                "/tmp",
                "-path",
                TARNVALE_SOURCE_DIR,
                "-prune",
                "-o",
                "-newer",
                stamp,
                "-print"})
        .output;
}

TEST_F(ReadmeTest, TheWalkThroughARequestGoesAsItSays) {
    if (!exists("/usr/bin/busctl")) {
        GTEST_SKIP() << "busctl is not installed";
    }

    layOutTheWalk();
    auto blocks = walkBlocks();
    ASSERT_GT(blocks.size(), 1U);
    EXPECT_EQ(blocks[0], "scripts/setup && scripts/build && build/bin/sandbox\n");
    ::setenv("TARNVALE_SANDBOX", "yes", 1);
    Finished walked;
    for (auto block = blocks.begin() + 1; block != blocks.end(); ++block) {
        const auto step = paste({"/bin/bash", "-s"}, *block);
        walked.output += step.output;
        walked.error += step.error;
        // The reader thinks it over for longer than the helper waits for a request.
        endHelper();
    }

    EXPECT_EQ(
        walked.error,
        std::string(turnedAway) + (lackOf(Ability::owners)
                                       ? notActing
                                       : "Only an administrator of this Mac can make this change "
                                         "through Tarnvale's helper.\n"));
    EXPECT_THAT(walked.output, isTheWalks());
}

TEST_F(ReadmeTest, TheToolPrintsWhatTheReadmeShows) {
    layOutTheWalk();
    const auto lab = contentOf(std::string(sourceFolder) + "examples/lab.json");
    put(fs::path(walkFolder) / "lab.json",
        replaced(replaced(lab, "\"tcp\"", "\"TCP\""), "10.0.0.0/8", "10.0.0/8"));

    std::vector<std::string> seen;
    for (const auto& [command, output] : shownCommands()) {
        const auto printed = paste({"/bin/sh"}, command).output;
        const std::string name = command.substr(0, command.find(' ', command.find(' ') + 1));
        seen.push_back(name);
        if (name == "build/bin/tarnvale-helperctl doctor") {
            EXPECT_THAT(printed, HasSubstr(output));  // the first of its problems
        } else {
            EXPECT_EQ(printed, output) << command;
        }
    }

    EXPECT_THAT(
        seen,
        testing::ElementsAre(
            "build/bin/tarnvale-helperctl explain",
            "build/bin/tarnvale-helperctl matrix",
            "build/bin/tarnvale-helperctl validate",
            "build/bin/tarnvale-helperctl doctor"));
}

TEST_F(ReadmeTest, AnOrdinaryUserCanWalkToo) {
    TARNVALE_NEEDS(owners);
    if (!exists("/usr/bin/busctl")) {
        GTEST_SKIP() << "busctl is not installed";
    }
    if (!exists(std::string(sourceFolder) + "build/bin/sandbox")) {
        GTEST_SKIP() << "the release, which the walk is through, is not built";
    }
    layOutTheWalk();
    const auto blocks = walkBlocks();
    const Finished walked = paste(
        {"/usr/bin/setpriv",
         "--reuid=1000",
         "--regid=1000",
         "--clear-groups",
         std::string(binFolder) + "sandbox",
         "/bin/bash",
         "-s",
         sourceFolder},
        "cd \"$1\"\n" + std::accumulate(blocks.begin() + 1, blocks.end(), std::string()));
    if (walked.status == 77 || walked.status == 126) {
        // No user namespace, or a folder of somebody else's.
        GTEST_SKIP() << walked.error;
    }

    EXPECT_EQ(walked.error, std::string(turnedAway) + notActing);
    EXPECT_THAT(walked.output, isTheWalks());
}

TEST(ReadmeAloneTest, PastedWhereTheSandboxCantBeEnteredTheWalkChangesNothing) {
    TARNVALE_NEEDS(processes);

    layOutTheWalk();
    for (const char* folder : {"scripts", "build/bin"}) {
        fs::remove(fs::path(walkFolder) / folder);
    }
    const std::string script = "#!/bin/sh\n";
    put(fs::path(walkFolder) / "scripts/setup", script);
    put(fs::path(walkFolder) / "scripts/build", script);
    put(fs::path(walkFolder) / "build/bin/sandbox",
        script + "echo 'sandbox: no private root' >&2\nexit 77\n");
    for (const auto& file : fs::recursive_directory_iterator(walkFolder)) {
        fs::permissions(file, fs::perms(0755));
    }
    // What the blocks run is there, so that nothing keeps them from it.
    for (const auto& file : fs::directory_iterator(binFolder)) {
        if (file.path().filename() != "sandbox" && file.is_regular_file()) {
            fs::create_symlink(file, fs::path(walkFolder) / "build/bin" / file.path().filename());
        }
    }
    for (const char* name : {"codesign", "dev-ca"}) {
        fs::create_symlink(
            std::string(sourceFolder) + "scripts/" + name, fs::path(walkFolder) / "scripts" / name);
    }
    std::string walk;
    for (const auto& block : walkBlocks()) {
        walk += block;
    }
    ::unsetenv("TARNVALE_SANDBOX");
    const std::string stamp = "/tmp/stamp";
    put(stamp, "");

    for (const std::vector<std::string>& shell :
         {std::vector<std::string>{"/bin/bash", "--norc", "-i"},
          {"/bin/bash"},
          {"/bin/sh", "-i"}}) {
        const auto pasted = paste(shell, walk);

        EXPECT_THAT(pasted.error, HasSubstr("sandbox: no private root\n")) << shell[0];
        EXPECT_THAT(pasted.error, HasSubstr("TARNVALE_SANDBOX: is set in the sandbox only\n"));
        EXPECT_EQ(changedSince(stamp), "") << shell[0];
        EXPECT_EQ(processOf(std::string(binFolder) + "activate"), std::nullopt);
    }
}

TEST_F(ReadmeTest, TheDemoShowsWhatItPromises) {
    TARNVALE_NEEDS(owners);
    const Finished shown = run({TARNVALE_BIN_DIR "/tarnvale-demo"});
    if (shown.output.starts_with("No packet is sent here")) {
        GTEST_SKIP() << shown.output.substr(0, shown.output.find('\n'));
    }

    EXPECT_EQ(shown.status, 0);
    EXPECT_THAT(shown.output, EndsWith("\n73 checks passed, 0 failed\n"));
    EXPECT_EQ(shown.error, "");
}

}  // namespace
}  // namespace tarnvale::test
