// SPDX-License-Identifier: MIT
//
// A sample of what `scripts/reliability power` does with all of it.

#include <cstdio>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/reliability/PowerCuts.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using testing::Gt;
using testing::IsEmpty;

TEST(PowerTest, ACutLeavesEachFileOldOrNewAndWhatWasAnswered) {
    const auto& ext4 = allFileSystems().front();
    if (const auto lack = lackOf(ext4)) {
        GTEST_SKIP() << *lack;
    }

    const auto figures = cutPower(ext4, {.isSample = true, .randomSubsets = 0, .step = 100});

    EXPECT_THAT(figures.violations, IsEmpty());
    EXPECT_THAT(missingIn(figures), IsEmpty());
    EXPECT_THAT(figures.cuts, Gt(30U));
    EXPECT_THAT(figures.trees, Gt(5U));
    std::printf("%zu cuts, %zu trees\n", figures.cuts, figures.trees);
}

}  // namespace
}  // namespace tarnvale::test
