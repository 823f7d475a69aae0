// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/ConnectionPlaces.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::platform {
namespace {

using testing::ElementsAre;

class ConnectionPlacesTest : public testing::Test {
protected:
    /// How many more the user gets.
    int takeAll(uid_t user, bool isAdministrator = false) {
        int taken = 0;
        while (auto place = places.take({.user = user, .isAdministrator = isAdministrator})) {
            held.push_back(std::move(*place));
            ++taken;
        }
        return taken;
    }

    ConnectionPlaces places;
    std::vector<ConnectionPlaces::Place> held;
};

TEST_F(ConnectionPlacesTest, AUserLeavesToOthersAsManyAsHeHas) {
    std::vector<int> taken;
    for (uid_t user = 1001; user <= 1005; ++user) {
        taken.push_back(takeAll(user));
    }

    EXPECT_THAT(taken, ElementsAre(64, 64, 48, 24, 12));
    EXPECT_EQ(takeAll(1001), 0);
}

TEST_F(ConnectionPlacesTest, AreThereAgainWheneverTheyHaveBeenGivenBack) {
    for (int time = 0; time < 2 * ConnectionPlaces::maxInAll; ++time) {
        ASSERT_TRUE(places.take({.user = 1001, .isAdministrator = false})) << time;
    }
    EXPECT_EQ(takeAll(1001), ConnectionPlaces::maxForUser);
}

TEST_F(ConnectionPlacesTest, SomeAreKeptForAdministrators) {
    for (uid_t user = 1001; user <= 1100; ++user) {
        takeAll(user);
    }
    EXPECT_EQ(held.size(), 224U);

    EXPECT_EQ(takeAll(501, true), 32);
    EXPECT_EQ(takeAll(0, true), 0) << "there are no more";
}

TEST_F(ConnectionPlacesTest, AnAdministratorHasNoMoreThanAnybody) {
    EXPECT_EQ(takeAll(0, true), 64);
    EXPECT_EQ(takeAll(501, true), 64);
}

TEST_F(ConnectionPlacesTest, WhatIsGivenBackIsThereAgain) {
    EXPECT_EQ(takeAll(1001), 64);
    held.pop_back();
    EXPECT_EQ(takeAll(1001), 1);

    held.clear();
    EXPECT_EQ(takeAll(1002), 64);
}

}  // namespace
}  // namespace tarnvale::platform
