// SPDX-License-Identifier: MIT
//
// The loop of this process, on a thread of its own.

#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <thread>

#include <gtest/gtest.h>

#include "platform/MainLoop.h"
#include "tests/support/EmptyHeap.h"

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;

/// A loop that runs to the end of the process.
MainLoop& runningLoop() {
    auto& loop = *makeMainLoop().release();
    std::thread([&loop] { loop.run(); }).detach();
    return loop;
}

template <class Condition>
bool eventually(const Condition& condition) {
    for (int i = 0; i < 2000 && !condition(); ++i) {
        std::this_thread::sleep_for(5ms);
    }
    return condition();
}

TEST(ThreadedMainLoopTest, RunsWorkWhenItIsDueAndInThatOrder) {
    auto& loop = runningLoop();
    static std::atomic<int> order = 0;
    static std::atomic<int> late = 0;
    static std::atomic<int> early = 0;

    loop.runAfter(100ms, [] { late = ++order; });
    loop.runAfter(10ms, [] { early = ++order; });

    EXPECT_TRUE(eventually([] { return late == 2; }));
    EXPECT_EQ(early, 1);
}

TEST(ThreadedMainLoopTest, IsWokenForWorkThatIsDueBeforeAllOther) {
    auto& loop = runningLoop();
    static std::atomic<int> done = 0;
    loop.runAfter(1h, [] { done = -1; });

    for (int number = 1; number <= 5; ++number) {
        std::this_thread::sleep_for(20ms);  // it sleeps for the rest of the hour then
        loop.runAfter(1ms, [] { ++done; });
        EXPECT_TRUE(eventually([&] { return done == number; }));
    }
}

#if !defined(TARNVALE_THREAD_SANITIZER)
TEST(ThreadedMainLoopTest, GoesOnWithoutMemory) {
    auto& loop = runningLoop();
    static std::atomic<int> rounds = 0;
    static std::atomic<bool> isDone = false;

    loop.runAfter(1ms, [] {
        static const test::EmptyHeap fromNowOn;
        throw std::bad_alloc();
    });
    loop.repeat(2ms, [] { ++rounds; });
    loop.runAfter(50ms, [] { isDone = true; });

    EXPECT_TRUE(eventually([] { return rounds >= 5 && isDone; }));
}
#endif

}  // namespace
}  // namespace tarnvale::platform
