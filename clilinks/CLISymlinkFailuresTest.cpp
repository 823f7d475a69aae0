// SPDX-License-Identifier: MIT
//
// Links and removals on a machine that fails: every system call in turn, a helper that is killed,
// a folder that is swapped under its feet.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "clilinks/CLISymlinkFixture.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/KillEverywhere.h"
#include "tests/support/Program.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::HelperCLISymlink {
namespace {

namespace fs = std::filesystem;
using test::logMessages;
using test::modeOf;
using test::put;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Gt;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr const char* anotherTool = "/Volumes/Disk/Tarnvale.app/Contents/Helpers/tarnvale";

/// A system call of the helper that fails.
struct Failure {
    std::string calls;  ///< which one, as strace names it; several where it has several names
    std::string path;   ///< what it touches, or a name that it is given
    int nth;            ///< which one of them, counted from 1
    std::string error;  ///< with which error, such as "EIO"
};

class CLISymlinkFailuresTest : public CLISymlinkFixture {
protected:
    CLISymlinkFailuresTest() {
        ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // the leak check fails under a tracer
    }

    /// What the helper prints when that call fails.
    static std::string perform(const char* operation, const Failure& failure) {
        const std::string injection =
            failure.calls + ":error=" + failure.error + ":when=" + std::to_string(failure.nth);
        std::string output = outputOf(
            {"/usr/bin/strace",
             "-qq",
             "-o/tmp/trace",
             "-P" + failure.path,
             "-etrace=" + failure.calls,
             "-einject=" + injection,
             helper,
             operation});

        std::ifstream trace("/tmp/trace");
        const std::string calls{std::istreambuf_iterator<char>(trace), {}};
        EXPECT_THAT(calls, HasSubstr("(INJECTED)")) << "there was no such call";
        return output;
    }
};

TEST_F(CLISymlinkFailuresTest, TellsWhyAFolderCannotBeOpened) {
    for (const char* operation : {"install", "remove"}) {
        SCOPED_TRACE(operation);
        EXPECT_EQ(perform(operation, {"openat", "/usr", 1, "EACCES"}), "Could not open /usr.");
        EXPECT_EQ(
            perform(operation, {"openat", "/usr", 2, "EACCES"}),
            "Could not open /usr/local: Permission denied.");
        EXPECT_EQ(
            perform(operation, {"openat", "/usr/local", 1, "EMFILE"}),
            "Could not open /usr/local/bin: Too many open files.");
        EXPECT_EQ(perform(operation, {"openat", "/usr/local", 1, "ELOOP"}), binIsNoFolder);
    }
}

TEST_F(CLISymlinkFailuresTest, TellsWhyAFolderCannotBeMade) {
    fs::remove("/usr/local/bin");

    EXPECT_EQ(
        perform("install", {"mkdirat", "/usr/local", 1, "ENOSPC"}),
        "Could not open /usr/local/bin: No space left on device.");
    EXPECT_EQ(
        perform("install", {"mkdirat", "/usr/local", 1, "EROFS"}),
        "Could not open /usr/local/bin: Read-only file system.");
    EXPECT_EQ(perform("install", {"mkdirat", "/usr/local", 1, "ENOTDIR"}), binIsNoFolder);
    EXPECT_FALSE(fs::exists("/usr/local/bin"));
}

TEST_F(CLISymlinkFailuresTest, LooksAgainWhenSomebodyElseHasMadeTheFolder) {
    fs::remove("/usr/local/bin");
    EXPECT_EQ(
        perform("install", {"mkdirat", "/usr/local", 1, "EEXIST"}),
        "Could not open /usr/local/bin: No such file or directory.");

    fs::create_directory("/usr/local/bin");
    setMode("/usr/local/bin", 0700);
    // The folder appears between the first look and the making.
    EXPECT_EQ(perform("install", {"openat", "/usr/local", 1, "ENOENT"}), "");
    EXPECT_EQ(linked(), bothLinks());
    EXPECT_EQ(modeOf("/usr/local/bin"), 0700);
}

TEST_F(CLISymlinkFailuresTest, TellsOfANewFolderThatCannotBeOpened) {
    fs::remove("/usr/local/bin");

    EXPECT_EQ(
        perform("install", {"openat", "/usr/local", 2, "ENFILE"}),
        "Could not open /usr/local/bin: Too many open files in system.");
}

TEST_F(CLISymlinkFailuresTest, TakesAFolderThatCannotBeJudgedForUnsafe) {
    for (const char* operation : {"install", "remove"}) {
        SCOPED_TRACE(operation);
        EXPECT_EQ(
            perform(operation, {"fstat,newfstatat", "/usr/local/bin", 1, "EIO"}), binIsUnsafe);
    }
}

TEST_F(CLISymlinkFailuresTest, TakesAnOwnerWhoCannotBeLookedUpForUnsafe) {
    setOwner("/usr/local/bin", administrator);

    EXPECT_EQ(perform("install", {"openat", "/etc/passwd", 1, "EMFILE"}), binIsUnsafe);
    EXPECT_EQ(perform("install", {"openat", "/etc/group", 1, "EMFILE"}), binIsUnsafe);
    EXPECT_EQ(install(), "");
}

TEST_F(CLISymlinkFailuresTest, TakesACopyThatCannotBeJudgedForUnsafe) {
    EXPECT_EQ(perform("install", {"readlink", tool, 1, "EIO"}), copyIsUnsafe(tool));
    EXPECT_EQ(perform("install", {"newfstatat,lstat", tool, 1, "EIO"}), copyIsUnsafe(tool));
    EXPECT_EQ(
        perform("install", {"newfstatat,lstat", "/Applications", 1, "EIO"}),
        copyIsUnsafe("/Applications"));
    EXPECT_THAT(linked(), IsEmpty());
}

TEST_F(CLISymlinkFailuresTest, TellsWhyALinkCannotBeMade) {
    EXPECT_EQ(
        perform("install", {"symlinkat", "/usr/local/bin", 1, "ENOSPC"}),
        "Could not link /usr/local/bin/tarnvale: No space left on device.");
    EXPECT_THAT(linked(), IsEmpty());
    EXPECT_THAT(logMessages(), IsEmpty());

    EXPECT_EQ(
        perform("install", {"symlinkat", "/usr/local/bin", 2, "EDQUOT"}),
        "Could not link /usr/local/bin/tvx: Disk quota exceeded.");
    EXPECT_THAT(linked(), UnorderedElementsAre(Pair("tarnvale", std::string("-> ") + tool)));
    EXPECT_THAT(logMessages(), ElementsAre(linkedLine("tarnvale")));
}

TEST_F(CLISymlinkFailuresTest, TellsOfADiskThatIsFullAfterTheFirstLink) {
    TARNVALE_NEEDS(mounts);
    ASSERT_EQ(::mount("full", "/usr/local/bin", "tmpfs", 0, "mode=0755,nr_inodes=2"), 0);

    EXPECT_EQ(install(), "Could not link /usr/local/bin/tvx: No space left on device.");

    EXPECT_THAT(linked(), UnorderedElementsAre(Pair("tarnvale", std::string("-> ") + tool)));
}

TEST_F(CLISymlinkFailuresTest, TellsOfAnOldLinkThatCannotBeReplaced) {
    link("tarnvale", anotherTool);

    EXPECT_EQ(
        perform("install", {"unlinkat", "/usr/local/bin", 1, "EPERM"}),
        "Could not link /usr/local/bin/tarnvale: File exists.");
    EXPECT_EQ(perform("install", {"readlinkat", "/usr/local/bin", 1, "EIO"}), tarnvaleIsForeign);
    EXPECT_EQ(
        perform("install", {"newfstatat,fstatat64", "tarnvale", 1, "EIO"}),
        "Could not link /usr/local/bin/tarnvale: File exists.");

    EXPECT_THAT(linked(), UnorderedElementsAre(Pair("tarnvale", std::string("-> ") + anotherTool)));
}

TEST_F(CLISymlinkFailuresTest, TellsOfACurrentLinkThatCannotBeRemoved) {
    ASSERT_EQ(install(), "");
    link("tx", tool);
    clearLog();

    EXPECT_EQ(
        perform("remove", {"unlinkat", "/usr/local/bin", 1, "EPERM"}),
        "Could not remove /usr/local/bin/tarnvale.");
    EXPECT_THAT(
        logMessages(), ElementsAre("Removed /usr/local/bin/tvx.", "Removed /usr/local/bin/tx."));

    link("tvx", tool);
    EXPECT_EQ(
        perform("remove", {"unlinkat", "/usr/local/bin", 2, "EPERM"}),
        "Could not remove /usr/local/bin/tvx.");
    EXPECT_THAT(linked(), UnorderedElementsAre(Pair("tvx", std::string("-> ") + tool)));
}

TEST_F(CLISymlinkFailuresTest, SaysNothingOfALegacyLinkThatCannotBeRemoved) {
    link("tx", tool);

    EXPECT_EQ(perform("install", {"unlinkat", "/usr/local/bin", 1, "EPERM"}), "");
    EXPECT_EQ(perform("remove", {"unlinkat", "/usr/local/bin", 3, "EPERM"}), "");

    EXPECT_THAT(linked(), UnorderedElementsAre(Pair("tx", std::string("-> ") + tool)));
}

TEST_F(CLISymlinkFailuresTest, TellsOfACurrentLinkThatCannotBeReadAndStays) {
    ASSERT_EQ(install(), "");
    clearLog();

    // The second read is that of the last check.
    EXPECT_EQ(
        perform("remove", {"readlinkat", "/usr/local/bin", 1, "EIO"}),
        "Could not remove /usr/local/bin/tarnvale.");

    EXPECT_THAT(logMessages(), ElementsAre("Removed /usr/local/bin/tvx."));
}

TEST_F(CLISymlinkFailuresTest, LinksOnADiskThatCannotBeSynchronized) {
    fs::remove("/usr/local/bin");

    EXPECT_EQ(perform("install", {"fsync", "/usr/local/bin", 1, "EIO"}), "");
    EXPECT_EQ(linked(), bothLinks());

    EXPECT_EQ(perform("remove", {"fsync", "/usr/local/bin", 1, "EIO"}), "");
    EXPECT_THAT(linked(), IsEmpty());
}

TEST_F(CLISymlinkFailuresTest, SynchronizesWhatItChangedLast) {
    fs::remove("/usr/local/bin");
    const auto callsOf = [](const char* operation) {
        EXPECT_EQ(
            outputOf(
                {"/usr/bin/strace",
                 "-qq",
                 "-o/tmp/trace",
                 "-P/usr/local",
                 "-P/usr/local/bin",
                 "-etrace=mkdirat,fchmod,symlinkat,unlinkat,fsync",
                 helper,
                 operation}),
            "");
        std::vector<std::string> calls;
        std::ifstream trace("/tmp/trace");
        for (std::string line; std::getline(trace, line);) {
            EXPECT_THAT(line, EndsWith(" = 0"));
            calls.push_back(line.substr(0, line.find('(')));
        }
        return calls;
    };

    EXPECT_THAT(
        callsOf("install"),
        ElementsAre("mkdirat", "fsync", "fsync", "symlinkat", "symlinkat", "fsync"));
    EXPECT_THAT(callsOf("remove"), ElementsAre("unlinkat", "unlinkat", "fsync"));
}

// A kill leaves each of the four names absent, old or new.
class KilledCLISymlinkTest : public CLISymlinkFailuresTest {
protected:
    const Entries before = {
        {"tarnvale", std::string("-> ") + anotherTool},
        {"tvx", std::string("-> ") + anotherTool},
        {"tx", std::string("-> ") + anotherTool},
        {"txr", "-> /opt/txr"},
        {"other", "file"},
    };

    static void prepare() {
        fs::remove_all("/usr/local/bin");
        fs::create_directory("/usr/local/bin");
        link("tarnvale", anotherTool);
        link("tvx", anotherTool);
        link("tx", anotherTool);
        link("txr", "/opt/txr");
        put("/usr/local/bin/other", "");
    }

    static void run(const char* operation) {
        ::execl(helper, helper, "stop", operation, nullptr);
        throw std::runtime_error("could not run the helper");
    }
};

TEST_F(KilledCLISymlinkTest, LeavesEachLinkAbsentOldOrNewOnInstall) {
    const Entries after = {
        {"tarnvale", std::string("-> ") + tool},
        {"tvx", std::string("-> ") + tool},
        {"txr", "-> /opt/txr"},
        {"other", "file"},
    };
    std::set<Entries> seen;

    const int killed = test::killAtEverySystemCall(
        prepare, [] { run("install"); }, [&] { seen.insert(linked()); });

    EXPECT_THAT(killed, Gt(20));
    EXPECT_THAT(seen, Contains(before));
    EXPECT_THAT(seen, Contains(after));
    EXPECT_THAT(seen.size(), Gt(5U));
    for (const Entries& entries : seen) {
        SCOPED_TRACE(testing::PrintToString(entries));
        EXPECT_EQ(entries.at("other"), "file");
        EXPECT_EQ(entries.at("txr"), "-> /opt/txr");
        for (const auto& [name, kind] : entries) {
            EXPECT_TRUE(before.contains(name));
            const auto wanted = after.find(name);
            EXPECT_THAT(kind, AnyOf(before.at(name), wanted == after.end() ? "" : wanted->second));
        }
    }
}

TEST_F(KilledCLISymlinkTest, LeavesEachLinkAbsentOrOldOnRemove) {
    std::set<Entries> seen;

    const int killed = test::killAtEverySystemCall(
        prepare, [] { run("remove"); }, [&] { seen.insert(linked()); });

    EXPECT_THAT(killed, Gt(20));
    Entries left = before;
    std::set<Entries> expected = {left};
    for (const char* name : {"tarnvale", "tvx", "tx"}) {
        left.erase(name);
        expected.insert(left);
    }
    EXPECT_EQ(seen, expected);
}

TEST_F(KilledCLISymlinkTest, LeavesNoFolderThatTheNextInstallRefuses) {
    const int killed = test::killAtEverySystemCall(
        [] { fs::remove_all("/usr/local/bin"); },
        [] { run("install"); },
        [] {
            EXPECT_EQ(install(), "");
            EXPECT_EQ(linked(), bothLinks());
        });

    EXPECT_THAT(killed, Gt(20));
}

TEST_F(CLISymlinkFailuresTest, TouchesNothingBehindALinkThatComesAndGoes) {
    constexpr int swaps = 10'000;
    fs::create_directories("/opt/outside");
    fs::create_symlink(anotherTool, "/opt/outside/tarnvale");
    fs::create_symlink(tool, "/opt/outside/tx");
    fs::create_symlink("/opt/outside", "/usr/local/swapped");
    const Entries outside = entriesOf("/opt/outside");
    const auto changed = fs::last_write_time("/opt/outside");
    put("/run/race", "");

    test::Program racer({helper, "descriptors", "race", "descriptors"});
    while (!fs::exists("/run/racing")) {
        std::this_thread::yield();
    }
    for (int swap = 0; swap < swaps || !fs::exists("/run/raced"); ++swap) {
        ASSERT_EQ(
            ::renameat2(
                AT_FDCWD, "/usr/local/bin", AT_FDCWD, "/usr/local/swapped", RENAME_EXCHANGE),
            0);
    }
    fs::remove("/run/race");
    std::istringstream output(racer.finish().output);

    int descriptorsBefore = 0;
    int done = 0;
    int refused = 0;
    int descriptorsAfter = 0;
    output >> descriptorsBefore >> done >> refused >> descriptorsAfter;
    EXPECT_GT(done, 0);
    EXPECT_GT(refused, 0);
    EXPECT_GT(descriptorsBefore, 0);
    EXPECT_EQ(descriptorsAfter, descriptorsBefore);
    EXPECT_EQ(entriesOf("/opt/outside"), outside);
    EXPECT_EQ(fs::last_write_time("/opt/outside"), changed);
}

TEST_F(CLISymlinkFailuresTest, LeavesNoDescriptorOpenAfterAnError) {
    const auto descriptorsAround = [](const std::vector<std::string>& operations) {
        std::vector<std::string> arguments = {helper, "descriptors"};
        arguments.insert(arguments.end(), operations.begin(), operations.end());
        arguments.emplace_back("descriptors");
        const std::string output = outputOf(arguments);
        return std::pair(
            output.substr(0, output.find('\n')), output.substr(output.rfind('\n') + 1));
    };

    auto [before, after] = descriptorsAround({"install", "remove", "remove"});
    EXPECT_EQ(after, before);

    put("/usr/local/bin/tvx", "");
    std::tie(before, after) = descriptorsAround({"install", "install"});
    EXPECT_EQ(after, before);

    setMode(application, 0777);
    std::tie(before, after) = descriptorsAround({"install", "install"});
    EXPECT_EQ(after, before);

    setMode("/usr/local/bin", 0777);
    std::tie(before, after) = descriptorsAround({"install", "remove"});
    EXPECT_EQ(after, before);
}

}  // namespace
}  // namespace tarnvale::HelperCLISymlink
