// SPDX-License-Identifier: MIT

#include "helperctl/Confirmation.h"

#include <array>
#include <chrono>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "helperctl/commands/Export.h"
#include "support/UniqueFd.h"
#include "tests/support/FakeHelper.h"
#include "tests/support/PolicyText.h"

namespace tarnvale::helperctl {
namespace {

using testing::ElementsAre;

class ConfirmationTest : public testing::Test {
protected:
    ConfirmationTest() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        input.reset(ends[0]);
        writer.reset(ends[1]);
    }

    support::UniqueFd input;
    support::UniqueFd writer;

    void type(std::string_view text) const {
        EXPECT_EQ(
            ::write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
};

TEST_F(ConfirmationTest, TakesAYes) {
    type("yes\n");

    EXPECT_TRUE(isConfirmed(input.get(), 60));
}

TEST_F(ConfirmationTest, TakesNothingElse) {
    for (const char* line : {"\n", "y\n", "Yes\n", "no\n", "yes \n"}) {
        type(line);
        EXPECT_FALSE(isConfirmed(input.get(), 60)) << line;
    }
    type("yes");
    writer.reset();
    EXPECT_FALSE(isConfirmed(input.get(), 60));
}

TEST_F(ConfirmationTest, WaitsNoLonger) {
    const auto start = std::chrono::steady_clock::now();

    EXPECT_FALSE(isConfirmed(input.get(), 1));

    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(ConfirmationTest, TakesAnInterruptionForANo) {
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGQUIT, SIGPIPE}) {
        EXPECT_EXIT(
            {
                noteInterruptions();
                const pid_t self = ::getpid();
                std::thread interrupter([self, signal] {
                    std::this_thread::sleep_for(std::chrono::milliseconds(200));
                    ::kill(self, signal);
                });
                const bool confirmed = isConfirmed(input.get(), 60);
                interrupter.join();
                ::_exit(confirmed ? 1 : 0);
            },
            testing::ExitedWithCode(0),
            "");
    }
}

TEST_F(ConfirmationTest, IsInterruptedNowhereElse) {
    EXPECT_EXIT(
        {
            noteInterruptions();
            ::raise(SIGHUP);
            sigset_t waiting{};
            ::sigpending(&waiting);
            const bool waitsBefore = sigismember(&waiting, SIGHUP) == 1;
            type("yes\n");
            const bool confirmed = isConfirmed(input.get(), 60);
            ::raise(SIGHUP);
            ::sigpending(&waiting);
            const bool waitsBehind = sigismember(&waiting, SIGHUP) == 1;
            ::_exit(waitsBefore && !confirmed && waitsBehind ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        "");
}

TEST_F(ConfirmationTest, IsNotStopped) {
    type("yes\n");
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        noteInterruptions();
        for (const int signal : {SIGTSTP, SIGTTIN, SIGTTOU}) {
            ::raise(signal);
        }
        ::_exit(isConfirmed(input.get(), 60) ? 0 : 1);
    }

    // An EXPECT_EXIT would wait for the end of a process that has been stopped.
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, WUNTRACED), child);
    EXPECT_EQ(status, 0);
    if (WIFSTOPPED(status)) {
        ::kill(child, SIGKILL);
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    }
}

NetworkFirewall::PolicyStore storeWith(const std::vector<test::OwnerText>& owners) {
    return NetworkFirewall::decodeStore(test::storeText(owners)).value();
}

TEST(FileToPutBackTest, IsWhatTheUserHasStored) {
    const auto store = storeWith(
        {{.key = "0", .networks = {{.number = 64}, {.number = 65}}},
         {.key = "501", .networks = {{.number = 66}}}});

    EXPECT_EQ(fileToPutBack(store, "0", {}), exported(store, "0"));
    EXPECT_EQ(fileToPutBack(store, "502", {}), std::nullopt);
    EXPECT_EQ(fileToPutBack({}, "0", {}), std::nullopt);
}

MATCHER_P(CantBePutBack, why, "") {
    try {
        static_cast<void>(fileToPutBack(arg, "0", {}));
    } catch (const std::runtime_error& error) {
        return std::string_view(error.what()).find(why) != std::string_view::npos;
    }
    return false;
}

TEST(FileToPutBackTest, IsRefusedWhereAnApplyWouldNotBringBackEverything) {
    const test::NetworkText lab;
    const test::NetworkText other{.number = 65};

    // An apply may adopt these, whoever it is for.
    EXPECT_THAT(storeWith({{.key = "legacy", .networks = {lab}}}), CantBePutBack("export --user"));
    // The later one holds the subnet until root applies it again.
    EXPECT_THAT(
        storeWith(
            {{.key = "0", .networks = {lab}, .appliedAt = "1"},
             {.key = "501", .networks = {{.name = "Theirs"}}, .appliedAt = "2"}}),
        CantBePutBack("another user has a network"));
    EXPECT_EQ(
        fileToPutBack(
            storeWith(
                {{.key = "0", .networks = {lab}, .appliedAt = "2"},
                 {.key = "501", .networks = {lab, other}, .appliedAt = "1"}}),
            "0",
            {}),
        exported(storeWith({{.key = "0", .networks = {lab}}}), "0"));
    // The review would leave it out.
    EXPECT_THAT(
        storeWith({{.key = "0", .networks = {{.subnetCIDR = "10.0.0.0/24"}}}}),
        CantBePutBack("can't enforce all of it"));
}

TEST(PutBackTest, AppliesWhatWasBefore) {
    std::vector<std::string> calls;
    const auto replying = [&](const ResultReply& reply) {
        return [&calls, reply] { return std::make_unique<test::ReplyingHelper>(reply, calls); };
    };

    EXPECT_EQ(
        putBack("[1]", replying({.result = "Enforcing 1 network: Lab", .error = {}})),
        failure("Not confirmed. What was before is in force again: Enforcing 1 network: Lab."));
    EXPECT_EQ(
        putBack(std::nullopt, replying({})),
        failure("Not confirmed: as before, nothing is enforced for this user."));
    EXPECT_THAT(calls, ElementsAre("applyFirewall [1]", "removeFirewall"));
    EXPECT_EQ(
        putBack(std::nullopt, replying({.result = {}, .error = "No."})),
        failure("Not confirmed, but what was before couldn't be put back: No."));
    EXPECT_EQ(
        putBack(
            "[1]",
            []() -> std::unique_ptr<platform::HelperClient> {
                throw platform::HelperClientError::notReachable("Connection refused");
            }),
        failure("Not confirmed, but what was before couldn't be put back: Could not reach the "
                "helper: Connection refused."));
}

}  // namespace
}  // namespace tarnvale::helperctl
