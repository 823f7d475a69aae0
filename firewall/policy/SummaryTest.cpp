// SPDX-License-Identifier: MIT

#include "firewall/policy/Summary.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::NetworkFirewall {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A review of enforceable networks with these names, and as many skipped rules.
Review reviewOf(const std::vector<std::string>& names, std::size_t skippedRules) {
    Review review;
    for (const auto& name : names) {
        review.enforceable.emplace_back().name = name;
    }
    review.skippedRules.resize(skippedRules);
    return review;
}

TEST(SummaryTest, CountsAndNamesWhatIsEnforcedForEverybody) {
    EXPECT_EQ(
        summaryForAllUsers(reviewOf({}, 0)),
        "No networks have an enabled firewall — the anchor is empty.");
    EXPECT_EQ(summaryForAllUsers(reviewOf({"Lab"}, 0)), "Enforcing 1 network for all users: Lab");
    EXPECT_EQ(
        summaryForAllUsers(reviewOf({"Lab", "", "Büro"}, 1)),
        "Enforcing 3 networks for all users: Lab, , Büro · 1 rule skipped");
}

TEST(SummaryTest, TellsTheCallerOfTheirOwnNetworksAndCountsOthers) {
    EXPECT_EQ(
        summaryForCaller(reviewOf({}, 0), 0), "None of your networks has an enabled firewall.");
    EXPECT_EQ(summaryForCaller(reviewOf({"Lab"}, 0), 0), "Enforcing 1 network: Lab");
    EXPECT_EQ(
        summaryForCaller(reviewOf({"Lab", "Büro"}, 2), 1),
        "Enforcing 2 networks: Lab, Büro · 2 rules skipped · 1 more for other users of this Mac");
    EXPECT_EQ(
        summaryForCaller(reviewOf({}, 0), 12),
        "None of your networks has an enabled firewall. · 12 more for other users of this Mac");
}

TEST(SummaryTest, GivesEachNoteALine) {
    const auto lab = std::make_shared<const std::string>("Lab");
    const std::vector<Note> notes{
        {.networkID = {}, .networkName = lab, .ruleNumber = 0, .problem = "It is too large."},
        {.networkID = {}, .networkName = lab, .ruleNumber = 7, .problem = "It has no port."}};

    EXPECT_THAT(
        linesOf(notes), ElementsAre("Lab: It is too large.", "Lab, rule 7: It has no port."));
    EXPECT_THAT(linesOf({}), IsEmpty());
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
