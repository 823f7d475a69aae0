// SPDX-License-Identifier: MIT

#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/MainLoop.h"
#include "tests/macos/standin/Dispatch.h"

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;
using testing::SizeIs;

class DispatchMainLoopTest : public testing::Test {
protected:
    test::Dispatch& dispatch = test::Dispatch::renewed();
    std::unique_ptr<MainLoop> loop = makeMainLoop();
};

TEST_F(DispatchMainLoopTest, TellsTheWallClock) {
    const auto before = std::chrono::system_clock::now();

    const auto now = loop->now();

    EXPECT_THAT(now, Ge(before));
    EXPECT_THAT(now, Le(std::chrono::system_clock::now()));
}

TEST_F(DispatchMainLoopTest, RepeatsWorkOnTheUtilityQueueAfterEachPeriod) {
    int runs = 0;

    loop->repeat(30s, [&] { ++runs; });

    ASSERT_THAT(dispatch.timers, SizeIs(1));
    const auto& timer = dispatch.timers.front();
    EXPECT_EQ(timer.queue, QOS_CLASS_UTILITY);
    EXPECT_EQ(timer.flags, 0);
    EXPECT_EQ(timer.start, 30s);
    EXPECT_EQ(timer.interval, 30s);
    EXPECT_EQ(timer.leeway, 0s);
    EXPECT_TRUE(timer.isResumed);
    EXPECT_EQ(runs, 0);
    timer.fire();
    timer.fire();
    EXPECT_EQ(runs, 2);
}

TEST_F(DispatchMainLoopTest, LetsNoExceptionIntoATimer) {
    loop->repeat(30s, [] { throw std::bad_alloc(); });

    ASSERT_THAT(dispatch.timers, SizeIs(1));
    EXPECT_NO_THROW(dispatch.timers.front().fire());
}

TEST_F(DispatchMainLoopTest, SaysThatATimerCannotBeHad) {
    dispatch.hasNoSources = true;
    const auto held = std::make_shared<int>();

    EXPECT_THROW(loop->repeat(30s, [held] {}), std::bad_alloc);

    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(DispatchMainLoopTest, RunsWorkOnceOnTheDefaultQueueAfterTheDelay) {
    int runs = 0;
    const auto held = std::make_shared<int>();

    loop->runAfter(300ms, [&, held] { ++runs; });

    ASSERT_THAT(dispatch.delayed, SizeIs(1));
    const auto& delayed = dispatch.delayed.front();
    EXPECT_EQ(delayed.queue, QOS_CLASS_DEFAULT);
    EXPECT_EQ(delayed.delay, 300ms);
    EXPECT_EQ(runs, 0);
    delayed.run();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(held.use_count(), 1) << "what has run is of no more use";
    EXPECT_THAT(dispatch.timers, IsEmpty());
}

TEST_F(DispatchMainLoopTest, LetsNoExceptionIntoDelayedWork) {
    loop->runAfter(300ms, [] { throw std::runtime_error("it fails"); });

    ASSERT_THAT(dispatch.delayed, SizeIs(1));
    EXPECT_NO_THROW(dispatch.delayed.front().run());
}

TEST_F(DispatchMainLoopTest, GivesTheMainThreadToDispatch) {
    EXPECT_THROW(loop->run(), test::MainThreadGiven);
}

TEST_F(DispatchMainLoopTest, EndsTheProcessWithoutTearingItDown) {
    EXPECT_EXIT(
        {
            std::atexit([] { std::_Exit(4); });
            loop->exitProcess(3);
        },
        testing::ExitedWithCode(3),
        "");
}

}  // namespace
}  // namespace tarnvale::platform
