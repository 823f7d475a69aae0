// SPDX-License-Identifier: MIT

#include "core/base/HelperLog.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Timestamp.h"
#include "support/UniqueFd.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale {
namespace {

namespace fs = std::filesystem;
using test::contentOf;
using test::exists;
using test::logMessages;
using test::logPath;
using test::modeOf;
using test::put;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;

constexpr std::size_t maxLogSize = 524'288;

class HelperLogTest : public testing::Test {
protected:
    HelperLogTest() { fs::remove(logPath); }
};

TEST_F(HelperLogTest, WritesOneLineWithTheTimeInUTC) {
    const auto before = support::iso8601(std::chrono::system_clock::now());
    helperLog("Applied firewall. ");
    const auto after = support::iso8601(std::chrono::system_clock::now());

    const auto log = contentOf(logPath);
    EXPECT_EQ(log.substr(20), " Applied firewall. \n");
    EXPECT_THAT(log.substr(0, 20), AllOf(Ge(before), Le(after)));
}

TEST_F(HelperLogTest, AppendsInOrder) {
    helperLog("first");
    helperLog("second");
    helperLog("");

    EXPECT_THAT(logMessages(), ElementsAre("first", "second", ""));
}

TEST_F(HelperLogTest, WritesAMessageOfSeveralLinesAsItIs) {
    helperLog(std::string("one\ntwo\0three\xFF", 14));

    EXPECT_EQ(contentOf(logPath).substr(20), std::string(" one\ntwo\0three\xFF\n", 16));
}

TEST_F(HelperLogTest, MakesTheLogReadableForAllWhateverTheUmask) {
    for (const mode_t mask : {0U, 022U, 077U}) {
        ::umask(mask);
        fs::remove(logPath);

        helperLog("line");

        EXPECT_EQ(modeOf(logPath), 0644U) << mask;
    }
}

TEST_F(HelperLogTest, KeepsTheModeOfALogThatIsThere) {
    put(logPath, "");
    fs::permissions(logPath, fs::perms(0600));

    helperLog("line");

    EXPECT_EQ(modeOf(logPath), 0600U);
    EXPECT_THAT(logMessages(), ElementsAre("line"));
}

TEST_F(HelperLogTest, AppendsToALogOfExactlyTheLimit) {
    put(logPath, std::string(maxLogSize, 'x'));

    helperLog("line");

    const auto log = contentOf(logPath);
    EXPECT_EQ(log.size(), maxLogSize + 26);
    EXPECT_THAT(log, EndsWith("Z line\n"));
}

TEST_F(HelperLogTest, EmptiesALogAboveTheLimitFirst) {
    put(logPath, std::string(maxLogSize + 1, 'x'));

    helperLog("line");

    EXPECT_THAT(logMessages(), ElementsAre("line"));
}

TEST_F(HelperLogTest, MakesADeletedLogAnew) {
    helperLog("first");
    fs::remove(logPath);

    helperLog("second");

    EXPECT_THAT(logMessages(), ElementsAre("second"));
    EXPECT_EQ(modeOf(logPath), 0644U);
}

TEST_F(HelperLogTest, KeepsTheLineWhenAnotherProcessMakesTheLogMeanwhile) {
    test::watchCalls(
        SYS_openat,
        [](const test::WatchedCall& call) {
            if (call.count == 2) {  // the first one has found none
                put(logPath, "theirs\n");
            }
            return 0;
        },
        [] { helperLog("ours"); });

    const auto log = contentOf(logPath);
    EXPECT_EQ(log.substr(0, 7), "theirs\n");
    EXPECT_THAT(log, EndsWith("Z ours\n"));
}

TEST_F(HelperLogTest, KeepsTheLineThatASignalInterrupts) {
    EXPECT_GT(test::interruptCalls(SYS_write, [] { helperLog("line"); }), 0);

    EXPECT_THAT(logMessages(), ElementsAre("line"));
}

TEST_F(HelperLogTest, LetsNoProgramThatIsStartedMeanwhileInheritTheLog) {
    EXPECT_THAT(test::inheritableFilesOf([] { helperLog("first"); }), IsEmpty());
    EXPECT_THAT(test::inheritableFilesOf([] { helperLog("second"); }), IsEmpty());
}

TEST_F(HelperLogTest, NeverFollowsALink) {
    put("/tmp/target", "kept\n");
    for (const std::string target : {"/tmp/target", "/tmp/missing"}) {
        fs::remove(logPath);
        fs::create_symlink(target, logPath);

        helperLog("line");

        EXPECT_TRUE(fs::is_symlink(logPath));
    }
    EXPECT_EQ(contentOf("/tmp/target"), "kept\n");
    EXPECT_FALSE(exists("/tmp/missing"));
}

TEST_F(HelperLogTest, NeverWaitsForTheReaderOfAFifo) {
    ASSERT_EQ(::mkfifo(logPath.c_str(), 0600), 0);

    helperLog("without a reader");
    const support::UniqueFd reader(::open(logPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    helperLog("with a reader");

    char byte = 0;
    EXPECT_EQ(::read(reader.get(), &byte, 1), 0);
}

TEST_F(HelperLogTest, LosesTheLineWhereAFolderIs) {
    fs::create_directory(logPath);

    helperLog("line");

    EXPECT_TRUE(fs::is_empty(logPath));
}

TEST_F(HelperLogTest, LosesTheLineWhenItsFolderIsMissing) {
    fs::remove_all("/var/log");

    helperLog("line");

    EXPECT_FALSE(exists("/var/log"));
}

TEST_F(HelperLogTest, LosesTheLineOnAVolumeThatIsReadOnlyOrFull) {
    TARNVALE_NEEDS(mounts);
    ASSERT_EQ(::mount("small", "/var/log", "tmpfs", 0, "size=4k"), 0);
    put("/var/log/fill", std::string(4096, 'x'));
    helperLog("full");
    EXPECT_EQ(contentOf(logPath), "");

    ASSERT_EQ(::mount("small", "/var/log", "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr), 0);
    helperLog("read only");
    EXPECT_EQ(contentOf(logPath), "");
}

TEST_F(HelperLogTest, KeepsTheLinesOfManyThreadsWhole) {
    const std::string message(1000, 'm');
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int line = 0; line < 50; ++line) {
                helperLog(message);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    const auto messages = logMessages();
    EXPECT_EQ(messages.size(), 200U);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), message), 200);
}

TEST_F(HelperLogTest, KeepsTheLinesOfSeveralProcessesWhole) {
    const std::string message(1000, 'm');
    std::vector<pid_t> children;
    children.reserve(4);
    for (int i = 0; i < 4; ++i) {
        children.push_back(::fork());
        ASSERT_GE(children.back(), 0);
        if (children.back() == 0) {
            for (int line = 0; line < 50; ++line) {
                helperLog(message);
            }
            ::_exit(0);
        }
    }
    for (const pid_t child : children) {
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    }

    const auto messages = logMessages();
    EXPECT_EQ(messages.size(), 200U);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), message), 200);
}

}  // namespace
}  // namespace tarnvale
