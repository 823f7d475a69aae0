// SPDX-License-Identifier: MIT

#include "platform/Command.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale::platform {
namespace {

using support::UniqueFd;

CommandResult shell(const std::string& commands) {
    return runCommand("/bin/sh", {"-c", commands});
}

TEST(CommandTest, ReturnsStatusAndBothOutputs) {
    EXPECT_EQ(
        shell("echo out; echo err >&2; exit 3"),
        (CommandResult{.status = 3, .standardOutput = "out\n", .standardError = "err\n"}));
}

TEST(CommandTest, PassesArgumentsAsTheyAre) {
    EXPECT_EQ(
        runCommand("/bin/sh", {"-c", "printf '<%s>' \"$@\"", "sh", "a b", "", "$HOME", "*"})
            .standardOutput,
        "<a b><><$HOME><*>");
}

TEST(CommandTest, DrainsTenMebibytesOfErrorsBeforeAnyOutput) {
    const auto result = shell("head -c 10485760 /dev/zero | tr '\\0' e >&2; echo done");

    std::string errors;
    errors.resize(10485760, 'e');
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.standardOutput, "done\n");
    EXPECT_EQ(result.standardError, errors);
}

TEST(CommandTest, DrainsTenMebibytesOfOutputWhileErrorsStayOpen) {
    const auto result = shell("head -c 10485760 /dev/zero | tr '\\0' o; echo done >&2");

    EXPECT_EQ(result.standardOutput.size(), 10485760U);
    EXPECT_EQ(result.standardError, "done\n");
}

TEST(CommandTest, ReplacesInvalidUtf8InBothOutputs) {
    const auto result = shell(R"(printf 'a\377b'; printf '\360\237x' >&2)");

    EXPECT_EQ(result.standardOutput, "a\uFFFDb");
    EXPECT_EQ(result.standardError, "\uFFFDx");
}

TEST(CommandTest, TellsThatAProgramIsMissing) {
    EXPECT_EQ(
        runCommand("/sbin/pfctl-that-is-not", {}),
        (CommandResult{
            .status = -1,
            .standardOutput = "",
            .standardError = "The file “pfctl-that-is-not” doesn’t exist."}));
}

TEST(CommandTest, TellsThatAProgramIsNotExecutable) {
    test::put("/sbin/text", "no program");

    EXPECT_EQ(
        runCommand("/sbin/text", {}),
        (CommandResult{
            .status = -1,
            .standardOutput = "",
            .standardError =
                "The file “text” couldn’t be opened because you don’t have permission to view "
                "it."}));
}

TEST(CommandTest, TellsThatAFolderIsNoProgram) {
    EXPECT_EQ(runCommand("/etc", {}).status, -1);
}

TEST(CommandTest, AChildKilledByASignalHasFailed) {
    EXPECT_EQ(shell("kill -9 $$").status, 128 + SIGKILL);
}

TEST(CommandTest, GivesTheChildExactlyDescriptorsZeroToTwo) {
    const UniqueFd bait(::open("/dev/null", O_RDONLY));  // NOLINT(android-cloexec-open): a bait
    ASSERT_TRUE(bait);

    // Descriptor 3 is ls's own, for the folder that it lists.
    EXPECT_EQ(runCommand("/bin/ls", {"/proc/self/fd"}).standardOutput, "0\n1\n2\n3\n");
}

TEST(CommandTest, LeavesNoDescriptorBehind) {
    const auto before = test::namesIn("/proc/self/fd").size();

    shell("exit 0");
    runCommand("/nowhere", {});

    EXPECT_EQ(test::namesIn("/proc/self/fd").size(), before);
}

TEST(CommandTest, ResetsTheChildsSignals) {
    sigset_t all;
    sigset_t old;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &old);
    ::signal(SIGPIPE, SIG_IGN);

    const auto status =
        runCommand("/bin/grep", {"-E", "^Sig(Blk|Ign)", "/proc/self/status"}).standardOutput;

    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    // Signals 32 and 33 are glibc's own.
    EXPECT_THAT(
        status,
        testing::MatchesRegex("SigBlk:\t0000000000000000\nSigIgn:\t0000000[01][08]0000000\n"));
}

TEST(CommandTest, SurvivesSignalsWhileTheChildRuns) {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // without SA_RESTART, so that each call is interrupted
    ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
    const auto self = ::pthread_self();
    std::atomic<bool> finished = false;
    std::thread pest([&] {
        while (!finished) {
            ::pthread_kill(self, SIGUSR1);
            ::usleep(1000);
        }
    });

    const auto result = shell("sleep 0.2; echo out; echo err >&2; exit 5");

    finished = true;
    pest.join();
    EXPECT_EQ(
        result, (CommandResult{.status = 5, .standardOutput = "out\n", .standardError = "err\n"}));
}

TEST(CommandTest, WaitsForTheChildDespiteASignal) {
    int status = 0;

    const int interrupted =
        test::interruptCalls(SYS_wait4, [&] { status = shell("exit 5").status; });

    EXPECT_GT(interrupted, 0);
    EXPECT_EQ(status, 5);
}

TEST(CommandTest, TakesAllOutputDespiteASignal) {
    CommandResult result;

    const int interrupted =
        test::interruptCalls(SYS_read, [&] { result = shell("echo out; echo err >&2"); });

    EXPECT_GT(interrupted, 0);
    EXPECT_EQ(
        result, (CommandResult{.status = 0, .standardOutput = "out\n", .standardError = "err\n"}));
}

TEST(CommandTest, HasNothingThatAnotherChildInherits) {
    EXPECT_THAT(test::inheritableFilesOf([] { shell("exit 0"); }), testing::IsEmpty());
}

TEST(CommandTest, InheritsEnvironmentAndFolder) {
    ::setenv("TARNVALE_TEST", "seen", 1);
    std::filesystem::current_path("/etc");

    EXPECT_EQ(shell("echo $TARNVALE_TEST; pwd").standardOutput, "seen\n/etc\n");
}

}  // namespace
}  // namespace tarnvale::platform
