// SPDX-License-Identifier: MIT

#include "tests/reliability/SweepCommand.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace tarnvale::test {
namespace {

/// What the command ends with, and what it prints, when each path has this outcome.
struct End {
    int status = 0;
    std::string output{};
};

End endOf(const std::vector<std::string>& words, const Outcome& outcome) {
    testing::internal::CaptureStdout();
    const int status =
        sweepPaths(words, {"once", "twice"}, [&](const Path&, const std::string&, const Points&) {
            return outcome;
        });
    return {.status = status, .output = testing::internal::GetCapturedStdout()};
}

bool saysNothingWasMeasured(const End& end) {
    return end.output.find("nothing was measured") != std::string::npos &&
           end.output.find("0 violations") == std::string::npos;
}

TEST(SweepCommandTest, SucceedsWhereAPointWasMetAndNothingViolated) {
    const auto end = endOf({"version", "once"}, {.points = 1, .neverMet = 2});

    EXPECT_EQ(end.status, EXIT_SUCCESS);
    EXPECT_EQ(end.output.find("nothing was measured"), std::string::npos) << end.output;
    EXPECT_NE(end.output.find("1 points, 2 never met, 0 violations"), std::string::npos)
        << end.output;
}

TEST(SweepCommandTest, FailsIfSomethingWasViolated) {
    const auto end = endOf({"version", "once"}, {.points = 1, .violations = {"it is gone"}});

    EXPECT_EQ(end.status, EXIT_FAILURE);
    EXPECT_NE(end.output.find("it is gone\n"), std::string::npos) << end.output;
}

TEST(SweepCommandTest, FailsIfNoPointWasMet) {
    const auto end = endOf({"version", "once"}, {.neverMet = 3});

    EXPECT_EQ(end.status, EXIT_FAILURE);
    EXPECT_TRUE(saysNothingWasMeasured(end)) << end.output;
}

TEST(SweepCommandTest, FailsIfThereIsNoPointAtAll) {
    const auto end = endOf({"version", "once"}, {});

    EXPECT_EQ(end.status, EXIT_FAILURE);
    EXPECT_TRUE(saysNothingWasMeasured(end)) << end.output;
}

TEST(SweepCommandTest, LetsSomePathsHaveNoPointButNotAPathWhosePointsAreNeverMet) {
    const auto endWith = [](const Outcome& ofVersion) {
        testing::internal::CaptureStdout();
        const int status = sweepPaths(
            {"all", "once"}, {"once"}, [&](const Path& path, const std::string&, const Points&) {
                return path.name == std::string("version") ? ofVersion : Outcome{.points = 1};
            });
        testing::internal::GetCapturedStdout();
        return status;
    };

    EXPECT_EQ(endWith({}), EXIT_SUCCESS);
    EXPECT_EQ(endWith({.neverMet = 1}), EXIT_FAILURE);
}

TEST(SweepCommandTest, RefusesAPathOrAWayThatThereIsNot) {
    const auto sweep = [](const Path&, const std::string&, const Points&) {
        return Outcome{.points = 1};
    };

    EXPECT_THROW(sweepPaths({"nowhere"}, {"once"}, sweep), std::invalid_argument);
    EXPECT_THROW(sweepPaths({"version", "twice"}, {"once"}, sweep), std::invalid_argument);
}

}  // namespace
}  // namespace tarnvale::test
