// SPDX-License-Identifier: MIT

#include "helperctl/Preview.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/HelperError.h"
#include "tests/support/PolicyText.h"

namespace tarnvale::helperctl {
namespace {

using NetworkFirewall::HostAddress;
using test::policyText;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::ThrowsMessage;

constexpr uid_t ada = 501;

/// A network whose name is its number.
test::NetworkText network(
    int number, const std::string& subnet, const std::vector<test::RuleText>& rules = {}) {
    return {
        .number = number,
        .name = "net " + std::to_string(number),
        .subnetCIDR = subnet,
        .rules = rules};
}

support::Uuid idOf(int number) {
    return support::Uuid::parse(test::networkID(number)).value();
}

/// The ruleset without its first line, which has the time.
std::string rulesOf(const Outcome& outcome) {
    const auto& ruleset = outcome.answer.ruleset.value();
    return ruleset.substr(ruleset.find('\n') + 1);
}

const char* const secondLine =
    "# Loaded into pf anchor \"com.apple/900.tarnvale.firewall\" by TarnvaleAdminHelper. Do not "
    "edit.\n\n";

std::string plainRules(const std::string& name, const std::string& subnet) {
    return "# --- " + name + " (" + subnet + ") ---\npass in quick proto udp from " + subnet +
           " port 68 to any port 67 keep state\npass out quick proto udp from any port 67 to " +
           subnet + " port 68\npass in quick from " + subnet +
           " to any keep state\nblock drop out quick from any to " + subnet + "\n\n";
}

TEST(PreviewTest, ShowsWhatWouldBeEnforced) {
    const auto outcome = preview(policyText({network(1, "192.168.64.9/24")}), {}, ada);

    EXPECT_EQ(outcome.status, done);
    EXPECT_EQ(outcome.answer.summary, "Enforcing 1 network: net 1");
    EXPECT_EQ(rulesOf(outcome), secondLine + plainRules("net 1", "192.168.64.0/24"));
    EXPECT_THAT(outcome.answer.refused, Optional(IsEmpty()));
    EXPECT_THAT(outcome.answer.skippedRules, Optional(IsEmpty()));
    EXPECT_THAT(outcome.answer.droppedClaims, Optional(IsEmpty()));
    EXPECT_EQ(outcome.answer.error, std::nullopt);
}

TEST(PreviewTest, ShowsThatNothingWouldBeEnforced) {
    auto off = network(1, "192.168.64.0/24");
    off.enabled = false;
    for (const auto& list : {policyText({}), policyText({off})}) {
        const auto outcome = preview(list, {}, ada);

        EXPECT_EQ(outcome.status, done);
        EXPECT_EQ(outcome.answer.summary, "None of your networks has an enabled firewall.");
        EXPECT_EQ(rulesOf(outcome), secondLine);
    }
}

TEST(PreviewTest, ShowsRefusedNetworksAndWouldFail) {
    const std::vector<HostAddress> hosts{
        {.interface = "en0", .bytes = {192, 168, 65, 7}, .prefixLength = 24}};

    const auto outcome = preview(
        policyText(
            {network(1, "10.0.0.0/24"),
             network(2, "192.168.64.0/24"),
             network(3, "192.168.65.0/24")}),
        hosts,
        ada);

    EXPECT_EQ(outcome.status, refusedOrFailed);
    EXPECT_EQ(outcome.answer.summary, "Enforcing 1 network: net 2");
    EXPECT_THAT(
        outcome.answer.refused,
        Optional(ElementsAre(
            RefusedNetwork{
                .networkID = idOf(1),
                .name = "net 1",
                .problem =
                    "the subnet \"10.0.0.0/24\" isn't one macOS gives a virtual network (a /24 "
                    "such "
                    "as 192.168.64.0/24, inside 192.168.0.0/16), so its rules can't be keyed on "
                    "it."},
            RefusedNetwork{
                .networkID = idOf(3),
                .name = "net 3",
                .problem = "192.168.65.0/24 overlaps en0 (192.168.65.7), one of this Mac's own "
                           "networks; rules there would cut the Mac off from it."})));
    EXPECT_EQ(rulesOf(outcome), secondLine + plainRules("net 2", "192.168.64.0/24"));
}

TEST(PreviewTest, ShowsSkippedRulesNetworkByNetwork) {
    const auto outcome = preview(
        policyText(
            {network(
                 1,
                 "192.168.64.0/24",
                 {{.ports = "0"}, {.ports = "x", .enabled = false}, {.ports = "y"}}),
             network(2, "192.168.65.0/24", {{.ports = "22"}}),
             network(3, "192.168.66.0/24", {{.ports = "z"}})}),
        {},
        ada);

    EXPECT_EQ(outcome.status, done);
    EXPECT_EQ(
        outcome.answer.summary, "Enforcing 3 networks: net 1, net 2, net 3 · 3 rules skipped");
    ASSERT_EQ(outcome.answer.skippedRules.value().size(), 2U);
    const auto& first = outcome.answer.skippedRules->at(0);
    EXPECT_EQ(first.networkID, idOf(1));
    EXPECT_EQ(first.name, "net 1");
    ASSERT_EQ(first.rules.size(), 2U);
    EXPECT_EQ(first.rules[0].number, 1);
    EXPECT_EQ(first.rules[1].number, 3);
    const auto& second = outcome.answer.skippedRules->at(1);
    EXPECT_EQ(second.name, "net 3");
    EXPECT_EQ(second.rules.size(), 1U);
}

TEST(PreviewTest, ShowsNetworksThatOneOfTheSameSubnetLeavesOut) {
    const auto outcome = preview(
        policyText({network(1, "192.168.64.0/24"), network(2, "192.168.64.9/24")}), {}, ada);

    EXPECT_EQ(outcome.status, done);
    EXPECT_EQ(outcome.answer.summary, "Enforcing 2 networks: net 1, net 2");
    EXPECT_THAT(
        outcome.answer.droppedClaims,
        Optional(ElementsAre(
            "192.168.64.0/24 is claimed by networks of more than one user; uid 501's \"net 2\" is "
            "left out for the most recently applied one.")));
    EXPECT_EQ(rulesOf(outcome), secondLine + plainRules("net 1", "192.168.64.0/24"));
}

TEST(PreviewTest, SaysAsAnApplyDoesWhyAFileCantBeRead) {
    EXPECT_THAT(
        [] { preview("[{}]", {}, ada); },
        ThrowsMessage<HelperFirewall::HelperError>(
            "Could not read the firewall policy: missing key \"networkID\" at [0]"));
    EXPECT_THAT(
        [] { preview("", {}, ada); },
        ThrowsMessage<HelperFirewall::HelperError>(
            "Could not read the firewall policy: expected a value, found the end at line 1, column "
            "1"));
}

}  // namespace
}  // namespace tarnvale::helperctl
