// SPDX-License-Identifier: MIT

#include "platform/linux/Deadline.h"

#include <thread>

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "platform/linux/PeriodicInterrupt.h"
#include "tests/support/Pipe.h"

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;
using test::Pipe;

TEST(DeadlineTest, IsOverWhenItsTimeHasCome) {
    const auto soon = Deadline::in(10ms);
    EXPECT_FALSE(Deadline::in(1h).isOver());
    EXPECT_TRUE(Deadline::in(0ms).isOver());

    std::this_thread::sleep_for(10ms);

    EXPECT_TRUE(soon.isOver());
    EXPECT_EQ(soon.left(), 0ms);
}

TEST(DeadlineTest, NeverComesByItself) {
    const Deadline never;

    EXPECT_FALSE(never.isOver());
    EXPECT_GT(never.left(), 24h * 365);
    EXPECT_LT(Deadline::in(1h), never);
}

TEST(DeadlineTest, EndsAWait) {
    const Pipe pipe;

    EXPECT_FALSE(waitFor(pipe.reading.get(), POLLIN, Deadline::in(10ms)));
    EXPECT_FALSE(waitFor(pipe.reading.get(), POLLIN, Deadline::in(0ms)));
    EXPECT_TRUE(waitFor(pipe.writing.get(), POLLOUT, Deadline::in(0ms)));
}

TEST(DeadlineTest, EndsNoWaitEarly) {
    const Pipe pipe;
    for (int i = 0; i < 50; ++i) {
        const auto deadline = Deadline::in(1900us);
        EXPECT_FALSE(waitFor(pipe.reading.get(), POLLIN, deadline));
        EXPECT_TRUE(deadline.isOver());
    }
}

TEST(DeadlineTest, WithoutOneAWaitEndsWithTheEvent) {
    Pipe pipe;
    std::thread other([&pipe] {
        std::this_thread::sleep_for(10ms);
        pipe.writing.reset();
    });

    EXPECT_TRUE(waitFor(pipe.reading.get(), POLLIN, Deadline()));

    other.join();
}

TEST(DeadlineTest, SignalsEndNoWait) {
    PeriodicInterrupt::handleSignal();
    const Pipe pipe;
    const auto deadline = Deadline::in(200ms);
    const PeriodicInterrupt interrupt;

    EXPECT_FALSE(waitFor(pipe.reading.get(), POLLIN, deadline));

    EXPECT_TRUE(deadline.isOver());
}

}  // namespace
}  // namespace tarnvale::platform
