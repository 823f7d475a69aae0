// SPDX-License-Identifier: MIT

#include "helperctl/Confirmation.h"

#include <array>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/FakeHelper.h"

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
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGQUIT}) {
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

/// Replies the same to everything.
class ReplyingHelper final : public test::FakeHelper {
public:
    ReplyingHelper(ResultReply reply, std::vector<std::string>& calls)
        : reply_(std::move(reply)), calls_(calls) {}

private:
    ResultReply asked(std::string call) override {
        calls_.push_back(std::move(call));
        return reply_;
    }

    ResultReply reply_;
    std::vector<std::string>& calls_;
};

TEST(PutBackTest, AppliesWhatWasBefore) {
    std::vector<std::string> calls;
    const auto replying = [&](const ResultReply& reply) {
        return [&calls, reply] { return std::make_unique<ReplyingHelper>(reply, calls); };
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
        failure("Could not put back what was before: No."));
}

}  // namespace
}  // namespace tarnvale::helperctl
