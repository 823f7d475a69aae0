// SPDX-License-Identifier: MIT
//
// A sample of what `scripts/reliability soak` does for long.

#include "tests/reliability/Soak.h"

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using namespace std::chrono_literals;
using testing::Gt;
using testing::IsEmpty;

TEST(SoakTest, RequestsOfAllKindsLeaveNothingInTheHelper) {
    TARNVALE_NEEDS(usersProcesses);
    TARNVALE_NEEDS(interfaces);

    const auto figures =
        soak({.duration = 3s, .connections = 16, .period = 700ms, .minRequests = 51});

    EXPECT_THAT(figures.violations, IsEmpty());
    EXPECT_THAT(missingIn(figures), IsEmpty());
    EXPECT_THAT(figures.requests, Gt(50U));
    EXPECT_THAT(figures.looks, Gt(3U));
}

}  // namespace
}  // namespace tarnvale::test
