// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/FairTurns.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/EmptyHeap.h"

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Turn = FairTurns::Turn;

constexpr uid_t first = 501;
constexpr uid_t second = 502;
constexpr uid_t third = 503;

/// Threads that wait for a turn each, and the order in which they got it.
class FairTurnsTest : public testing::Test {
protected:
    void TearDown() override { joinAll(); }

    void joinAll() {
        for (auto& thread : threads) {
            thread.join();
        }
        threads.clear();
    }

    /// Returns when the thread waits.
    void startWaiting(uid_t user) {
        std::atomic<pid_t> waiter = 0;
        threads.emplace_back([this, user, &waiter] {
            waiter = ::gettid();
            const auto turn = turns.take(user, Deadline());
            const support::MutexLock lock(mutex);
            order.push_back(user);
        });
        while (waiter == 0 || !isAsleep(waiter)) {
            std::this_thread::sleep_for(1ms);
        }
    }

    static bool isAsleep(pid_t thread) {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        const std::string status{std::istreambuf_iterator<char>(file), {}};
        return status.find(") S ") != std::string::npos;
    }

    FairTurns turns{1};
    support::Mutex mutex;
    std::vector<uid_t> order;
    std::vector<std::thread> threads;
};

TEST_F(FairTurnsTest, UsersTakeTurnsHoweverManyWaitForEach) {
    std::optional<Turn> held = turns.take(first, Deadline());
    for (const uid_t user : {first, first, first, first, second, second, third}) {
        startWaiting(user);
    }

    held.reset();
    joinAll();

    EXPECT_THAT(order, ElementsAre(first, second, third, first, second, first, first));
}

TEST_F(FairTurnsTest, AsManyAtATimeAsItIsMadeFor) {
    FairTurns two{2};
    std::atomic<int> working = 0;
    std::atomic<int> most = 0;
    for (int count = 0; count < 8; ++count) {
        threads.emplace_back([&] {
            for (int round = 0; round < 50; ++round) {
                const auto turn = two.take(first, Deadline());
                most = std::max(most.load(), ++working);
                std::this_thread::sleep_for(100us);
                --working;
            }
        });
    }
    joinAll();

    EXPECT_EQ(most, 2);
}

TEST_F(FairTurnsTest, NobodyWaitsBeyondTheDeadline) {
    std::optional<Turn> held = turns.take(first, Deadline());

    EXPECT_FALSE(turns.take(second, Deadline::in(10ms)));
    EXPECT_FALSE(turns.take(second, Deadline::in(0ms)));

    held.reset();
    EXPECT_TRUE(turns.take(second, Deadline::in(10s)));
    EXPECT_FALSE(turns.take(second, Deadline::in(0ms))) << "although there is one";
}

TEST_F(FairTurnsTest, WhoeverGivesUpIsPassedOver) {
    std::optional<Turn> held = turns.take(first, Deadline());
    startWaiting(second);
    EXPECT_FALSE(turns.take(third, Deadline::in(10ms)));
    EXPECT_FALSE(turns.take(second, Deadline::in(10ms)));

    held.reset();
    joinAll();

    EXPECT_THAT(order, ElementsAre(second));
    EXPECT_TRUE(turns.take(third, Deadline::in(1s)));
}

#if !defined(TARNVALE_THREAD_SANITIZER)
TEST_F(FairTurnsTest, WhoeverHasNoMemoryToWaitIsPassedOver) {
    std::size_t shortages = 0;
    for (bool hasWaited = false; !hasWaited; shortages += hasWaited ? 0 : 1) {
        std::optional<Turn> held = turns.take(first, Deadline());
        try {
            const test::EmptyHeap heap(shortages);
            hasWaited = !turns.take(second, Deadline::in(10ms));
        } catch (const std::bad_alloc&) {
            // One allocation more the next time.
        }

        held.reset();

        EXPECT_TRUE(turns.take(third, Deadline::in(10s))) << shortages;
    }
    EXPECT_GT(shortages, 1U);
}
#endif

}  // namespace
}  // namespace tarnvale::platform
