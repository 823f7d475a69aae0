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
    const StormPlan plan{.seed = 20, .connections = 24, .longestLife = 1000ms};
    Storm storm(plan);

    const auto& figures = storm.figures();

    const auto end = std::chrono::steady_clock::now() + 120s;
    do {
        storm.run(1500ms);
    } while (figures.violations.empty() &&
             (figures.looks < 2 || figures.requests <= 50 || !missingIn(figures, plan).empty()) &&
             std::chrono::steady_clock::now() < end);

    EXPECT_THAT(figures.violations, IsEmpty());
    EXPECT_THAT(missingIn(figures, plan), IsEmpty());
    EXPECT_THAT(figures.requests, Gt(50U));
    std::printf("%zu requests\n", figures.requests);
}

}  // namespace
}  // namespace tarnvale::test
