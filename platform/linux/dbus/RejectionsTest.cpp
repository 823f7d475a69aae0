// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/Rejections.h"

#include <gtest/gtest.h>

namespace tarnvale::platform {
namespace {

using namespace std::chrono_literals;

TEST(RejectionsTest, TwentyAtOnceAreTooMany) {
    Rejections rejections;
    const auto now = Rejections::Clock::now();
    for (int count = 0; count < 19; ++count) {
        rejections.add(501, now);
    }
    EXPECT_FALSE(rejections.areTooMany(501, now));

    rejections.add(501, now);

    EXPECT_TRUE(rejections.areTooMany(501, now));
    EXPECT_FALSE(rejections.areTooMany(502, now)) << "each user has his own";
}

TEST(RejectionsTest, OneIsForgottenEachSecond) {
    Rejections rejections;
    const auto now = Rejections::Clock::now();
    for (int count = 0; count < 25; ++count) {
        rejections.add(501, now);
    }

    EXPECT_TRUE(rejections.areTooMany(501, now + 5s));
    EXPECT_FALSE(rejections.areTooMany(501, now + 6s));
    rejections.add(501, now + 6s);
    EXPECT_TRUE(rejections.areTooMany(501, now + 6s));
}

TEST(RejectionsTest, ForgottenOnesCountForNothing) {
    Rejections rejections;
    const auto now = Rejections::Clock::now();
    for (int count = 0; count < 100; ++count) {
        rejections.add(501, now + count * 1s);
        EXPECT_FALSE(rejections.areTooMany(501, now + count * 1s)) << count;
    }
}

TEST(RejectionsTest, LongAgoIsNoCreditForToday) {
    Rejections rejections;
    const auto now = Rejections::Clock::now();
    rejections.add(501, now - 1h);

    for (int count = 0; count < 20; ++count) {
        rejections.add(501, now);
    }

    EXPECT_TRUE(rejections.areTooMany(501, now));
}

}  // namespace
}  // namespace tarnvale::platform
