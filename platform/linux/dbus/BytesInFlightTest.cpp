// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/BytesInFlight.h"

#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>

namespace tarnvale::platform {
namespace {

constexpr std::size_t mib = std::size_t{1} << 20U;
constexpr std::size_t large = BytesInFlight::maxForUser + 1;

/// A user's wish for room.
class Wish {
public:
    Wish(BytesInFlight& all, uid_t user, std::size_t size)
        : room_(all, user), fd_(room_.ask(size)) {}

    bool isGranted() const {
        pollfd waited{.fd = fd_, .events = POLLIN, .revents = 0};
        return ::poll(&waited, 1, 0) == 1;
    }
    void end() { room_.giveBack(); }
    void cover(std::size_t size) { room_.cover(size); }

private:
    BytesInFlight::Room room_;
    int fd_;
};

class BytesInFlightTest : public testing::Test {
protected:
    std::unique_ptr<Wish> wish(uid_t user, std::size_t size) {
        return std::make_unique<Wish>(all, user, size);
    }

    /// Eight users take all that there is.
    std::vector<std::unique_ptr<Wish>> takeAll() {
        std::vector<std::unique_ptr<Wish>> taken;
        for (uid_t user = 100; user < 108; ++user) {
            taken.push_back(wish(user, BytesInFlight::maxForUser));
            EXPECT_TRUE(taken.back()->isGranted());
        }
        return taken;
    }

    BytesInFlight all;
};

TEST_F(BytesInFlightTest, WhatIsOverForAUserWaitsForHisOwn) {
    const auto first = wish(1, 10 * mib);
    const auto second = wish(1, 10 * mib);
    EXPECT_TRUE(first->isGranted());
    EXPECT_FALSE(second->isGranted());
    EXPECT_TRUE(wish(2, 10 * mib)->isGranted()) << "another user";

    first->end();

    EXPECT_TRUE(second->isGranted());
}

TEST_F(BytesInFlightTest, WhatIsOverInAllWaits) {
    const auto taken = takeAll();
    const auto late = wish(1, 1);
    EXPECT_FALSE(late->isGranted());

    taken[3]->end();

    EXPECT_TRUE(late->isGranted());
}

TEST_F(BytesInFlightTest, AMessageOfAnySizeIsTaken) {
    EXPECT_TRUE(wish(1, BytesInFlight::maxForUser)->isGranted());
    EXPECT_TRUE(wish(1, 128 * mib)->isGranted());
}

TEST_F(BytesInFlightTest, ThereIsOneLargeMessageAtATime) {
    const auto first = wish(1, large);
    const auto second = wish(1, large);
    const auto third = wish(1, large);
    const auto others = wish(2, large);
    EXPECT_TRUE(first->isGranted());
    EXPECT_TRUE(wish(1, mib)->isGranted()) << "it keeps others from nothing";
    EXPECT_TRUE(wish(2, BytesInFlight::maxForUser)->isGranted());
    EXPECT_FALSE(second->isGranted());

    first->end();
    EXPECT_TRUE(second->isGranted());
    EXPECT_FALSE(others->isGranted());
    second->end();
    EXPECT_TRUE(others->isGranted()) << "users take turns";
    EXPECT_FALSE(third->isGranted());
    others->end();
    EXPECT_TRUE(third->isGranted());
}

TEST_F(BytesInFlightTest, UsersTakeTurnsHoweverManyWaitForEach) {
    auto taken = takeAll();
    std::vector<std::unique_ptr<Wish>> greedy;
    greedy.reserve(64);
    for (int count = 0; count < 64; ++count) {
        greedy.push_back(wish(100, 16 * mib));
    }
    const auto modest = wish(1, 16 * mib);

    taken[1]->end();
    EXPECT_TRUE(modest->isGranted());
    taken[0]->end();
    EXPECT_TRUE(greedy.front()->isGranted());
    EXPECT_FALSE(greedy[1]->isGranted());
}

TEST_F(BytesInFlightTest, WhoeverWantsMuchIsNotOvertakenByThoseWhoWantLittle) {
    auto taken = takeAll();
    const auto much = wish(1, 16 * mib);
    taken[0]->end();
    ASSERT_TRUE(much->isGranted());
    const auto muchAgain = wish(2, 16 * mib);
    taken[0] = wish(3, mib);
    taken[1]->cover(BytesInFlight::maxForUser + mib);

    taken[1]->end();

    EXPECT_TRUE(muchAgain->isGranted());
    EXPECT_FALSE(taken[0]->isGranted());
}

TEST_F(BytesInFlightTest, WhatLiesInMemoryAlreadyIsCountedAtOnce) {
    const auto request = wish(1, mib);
    request->cover(40 * mib);
    const auto next = wish(1, mib);
    EXPECT_FALSE(next->isGranted());
    request->cover(mib);
    EXPECT_FALSE(next->isGranted()) << "it becomes no smaller";

    request->end();

    EXPECT_TRUE(next->isGranted());
    next->end();
    const auto taken = takeAll();
    EXPECT_FALSE(wish(1, mib)->isGranted()) << "the sum is right again";
}

TEST_F(BytesInFlightTest, WhoeverStopsWaitingLeavesNoTrace) {
    const auto first = wish(1, 16 * mib);
    auto leaving = wish(1, mib);
    const auto second = wish(1, mib);

    leaving.reset();
    first->end();

    EXPECT_TRUE(second->isGranted());
    second->end();
    const auto taken = takeAll();
    EXPECT_FALSE(wish(1, 1)->isGranted());
}

}  // namespace
}  // namespace tarnvale::platform
