// SPDX-License-Identifier: MIT

#include "tests/reliability/Conclusion.h"

#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/reliability/PowerCuts.h"
#include "tests/reliability/Soak.h"
#include "tests/reliability/Storm.h"

namespace tarnvale::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

TEST(ConclusionTest, IsASuccessWhereAllWasThereAndNothingViolated) {
    testing::internal::CaptureStdout();

    EXPECT_EQ(conclude("storm", {}, {}), EXIT_SUCCESS);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "storm: 0 violations\n");
}

TEST(ConclusionTest, IsAFailureWhereSomethingWasViolated) {
    testing::internal::CaptureStdout();

    EXPECT_EQ(conclude("storm", {"it is gone"}, {}), EXIT_FAILURE);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "storm: 1 violations\n");
}

TEST(ConclusionTest, SaysThatNothingWasMeasuredInPlaceOfNoViolations) {
    testing::internal::CaptureStdout();

    EXPECT_EQ(conclude("storm", {}, missingIn({{0, "kill"}, {3, "look"}})), EXIT_FAILURE);
    EXPECT_EQ(
        testing::internal::GetCapturedStdout(),
        "storm: nothing was measured\nstorm: there was no kill\n");
}

TEST(ConclusionTest, MissesWhateverAStormNeverHad) {
    const StormPlan plan;
    StormFigures figures{.requests = 5, .kills = 1, .reapplies = 1, .looks = 1};
    for (const auto* const answer : expectedAnswers) {
        figures.answers[answer] = 1;
    }

    EXPECT_THAT(missingIn(figures, plan), IsEmpty());

    figures.answers.erase("ApplyFirewall");
    figures.answers[refusals] = 0;
    figures.kills = 0;
    EXPECT_THAT(
        missingIn(figures, plan),
        ElementsAre("no kill", "no right reply: ApplyFirewall", "no right reply: refusal"));
    EXPECT_THAT(missingIn(figures, {.isDisturbed = false}), Not(Contains("no kill")));
    EXPECT_THAT(missingIn(StormFigures{}, plan), Contains("no look"));
}

TEST(ConclusionTest, MissesTheLaterLooksOfASoak) {
    EXPECT_THAT(
        missingIn(SoakFigures{.requests = 9, .looks = 2, .laterLooks = 0}),
        ElementsAre("no later look"));
    EXPECT_THAT(
        missingIn(SoakFigures{.requests = 0, .looks = 4, .laterLooks = 2}),
        ElementsAre("no request"));
}

TEST(ConclusionTest, MissesCutsBehindTheReplyToEachRequest) {
    PowerCutFigures figures{.writes = 9, .flushes = 9, .requests = 2, .cuts = 9, .trees = 3};
    figures.cutsOf = {
        {.request = "apply", .changes = true, .begun = 1, .answered = 1},
        {.request = "remove", .changes = true, .begun = 0, .answered = 0}};

    EXPECT_THAT(
        missingIn(figures),
        ElementsAre("no cut during remove", "no cut behind the reply to remove"));
    EXPECT_THAT(missingIn(PowerCutFigures{}), Contains("no cut"));
}

}  // namespace
}  // namespace tarnvale::test
