// SPDX-License-Identifier: MIT
//
// A sample of what `scripts/reliability storm` does for longer.

#include "tests/reliability/Storm.h"

#include <chrono>
#include <cstdio>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using namespace std::chrono_literals;
using testing::Gt;
using testing::IsEmpty;

TEST(StormTest, WhatRequestsAndKillsLeaveIsTheResultOfASerialOrder) {
    TARNVALE_NEEDS(usersProcesses);
    TARNVALE_NEEDS(interfaces);
    Storm storm({.seed = 20, .connections = 24, .longestLife = 1000ms});

    storm.run(1500ms);
    storm.run(1500ms);

    EXPECT_THAT(storm.figures().violations, IsEmpty());
    EXPECT_THAT(storm.figures().requests, Gt(50U));
    EXPECT_THAT(storm.figures().kills, Gt(0U));
    std::printf("%zu requests\n", storm.figures().requests);
}

}  // namespace
}  // namespace tarnvale::test
