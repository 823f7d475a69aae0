// SPDX-License-Identifier: MIT

#include "support/Timestamp.h"

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::support {
namespace {

using namespace std::chrono_literals;
using std::chrono::sys_days;
using std::chrono::year;

TEST(TimestampTest, PrintsUtcWithSecondsPrecision) {
    EXPECT_EQ(iso8601(sys_days(year(2025) / 3 / 14) + 9h + 26min + 53s), "2025-03-14T09:26:53Z");
    EXPECT_EQ(iso8601(sys_days(year(2000) / 2 / 29) + 23h + 59min + 59s), "2000-02-29T23:59:59Z");
    EXPECT_EQ(iso8601(sys_days(year(2100) / 3 / 1)), "2100-03-01T00:00:00Z");
    EXPECT_EQ(iso8601(std::chrono::system_clock::time_point()), "1970-01-01T00:00:00Z");
}

TEST(TimestampTest, DropsTheFractionOfASecond) {
    EXPECT_EQ(iso8601(sys_days(year(2025) / 1 / 1) + 999'999us), "2025-01-01T00:00:00Z");
    EXPECT_EQ(iso8601(sys_days(year(1970) / 1 / 1) - 1us), "1969-12-31T23:59:59Z");
}

TEST(TimestampTest, CountsFromTheStartOf2001) {
    const auto before = std::chrono::system_clock::now();
    const ReferenceDate now = ReferenceDate::now();
    const auto after = std::chrono::system_clock::now();

    constexpr double from1970To2001 = 978307200;
    const auto since2001 = [](std::chrono::system_clock::time_point time) {
        return std::chrono::duration<double>(time.time_since_epoch()).count() - from1970To2001;
    };
    EXPECT_GE(now.seconds, since2001(before) - 1e-5);
    EXPECT_LE(now.seconds, since2001(after) + 1e-5);
}

TEST(TimestampTest, TheDistantPastIsTheStartOfYear1) {
    const auto distance = sys_days(year(1) / 1 / 1) - sys_days(year(2001) / 1 / 1);
    // Foundation counts in the Julian calendar there, which is two days behind.
    EXPECT_EQ(
        ReferenceDate::distantPast().seconds,
        std::chrono::duration<double>(distance - 48h).count());
    EXPECT_LT(ReferenceDate::distantPast(), ReferenceDate{-1e10});
}

}  // namespace
}  // namespace tarnvale::support
