// SPDX-License-Identifier: MIT

#include "firewall/analysis/Differences.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/analysis/Enforced.h"
#include "firewall/analysis/Words.h"
#include "tests/support/FirewallRule.h"
#include "tests/support/PacketSamples.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::FirewallAnalysis {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;
using Action = FirewallRule::Action;
using Proto = FirewallRule::Proto;
using test::rule;
using testing::ElementsAre;
using testing::IsEmpty;

NetworkLines networkWith(std::vector<FirewallRule> rules, Action defaultOutbound = Action::allow) {
    FirewallNetworkPolicy made;
    made.subnetCIDR = "192.168.64.0/24";
    made.policy.enabled = true;
    made.policy.defaultOutbound = defaultOutbound;
    made.policy.rules = std::move(rules);
    return linesOf(made);
}

/// "tcp 22 to anywhere: passes, 3 -> 2": who decided, who decides.
std::vector<std::string> shown(const NetworkLines* before, const NetworkLines* now) {
    const auto place = [](std::optional<std::size_t> line) {
        return line ? std::to_string(*line) : "none";
    };
    std::vector<std::string> texts;
    for (const PacketChange& change : changes(before, now)) {
        texts.push_back(
            packetWords(change) + (change.direction == Direction::in ? " to " : " from ") +
            words(change.remotes) + (change.passes ? ": passes, " : ": blocked, ") +
            place(change.before) + " -> " + place(change.now));
    }
    return texts;
}

std::vector<std::string> shown(
    const std::vector<FirewallRule>& before, const std::vector<FirewallRule>& now) {
    const auto old = networkWith(before);
    const auto young = networkWith(now);
    return shown(&old, &young);
}

TEST(DifferencesTest, AreSaidInFewWords) {
    const auto office = rule(Action::deny, Proto::any, "10.0.0.0/8");
    const auto branch = rule(Action::allow, Proto::any, "10.1.0.0/16");
    const auto web = rule(Action::deny, Proto::any, "any", "443");
    const auto ssh = rule(Action::deny, Proto::tcp, "any", "22");

    EXPECT_THAT(shown({office}, {office}), IsEmpty());
    EXPECT_THAT(
        shown({}, {office}), ElementsAre("everything but DHCP to 10.0.0.0/8: blocked, 2 -> 2"));
    EXPECT_THAT(
        shown({office}, {branch, office}),
        ElementsAre("everything but DHCP to 10.1.0.0/16: passes, 2 -> 2"));
    EXPECT_THAT(
        shown({office}, {office, web}),
        ElementsAre("tcp and udp 443 to anywhere but 10.0.0.0/8: blocked, 3 -> 3"));
    EXPECT_THAT(
        shown({branch, office}, {branch, office, ssh}),
        ElementsAre("tcp 22 to anywhere but 10.0.0.0/8: blocked, 4 -> 4"));
    EXPECT_THAT(
        shown({ssh}, {rule(Action::deny, Proto::tcp, "any")}),
        ElementsAre("tcp (all ports but 22) to anywhere: blocked, 3 -> 2"));
    EXPECT_THAT(
        shown({}, {rule(Action::deny, Proto::udp, "any", "67")}),
        ElementsAre("udp 67 (without DHCP) to anywhere: blocked, 2 -> 2"));
    // A rule that moves behind one that takes all of its packets.
    EXPECT_THAT(shown({office, branch}, {office}), IsEmpty());
}

TEST(DifferencesTest, CompareWithNoLinesAtAll) {
    const auto closed = networkWith({}, Action::deny);

    EXPECT_THAT(
        shown(nullptr, &closed),
        ElementsAre("everything but DHCP to anywhere: blocked, none -> 2"));
    EXPECT_THAT(shown(nullptr, nullptr), IsEmpty());
}

TEST(DifferencesTest, JoinAndPartRegionsAsFacesDo) {
    const auto range = [](const char* cidr) {
        return rangeOf(NetworkFirewall::parseCIDR(cidr).value());
    };
    const auto faces = facesOf(
        {range("10.0.0.0/8"),
         range("10.0.0.0/9"),
         range("10.128.0.0/9"),
         range("10.1.0.0/16"),
         range("11.0.0.0/8")});
    ASSERT_EQ(faces.size(), 6U);
    const auto regions = [&](const std::vector<bool>& isIn) {
        return words(regionsOf(faces, isIn));
    };

    // anywhere, 10/8 (empty), 10.0/9, 10.1/16, 10.128/9, 11/8
    EXPECT_EQ(regions({true, false, true, true, true, true}), "anywhere");
    EXPECT_EQ(regions({false, false, true, true, true, false}), "10.0.0.0/8");
    EXPECT_EQ(regions({true, false, true, false, true, true}), "anywhere but 10.1.0.0/16");
    EXPECT_EQ(regions({true, false, false, false, true, true}), "anywhere but 10.0.0.0/9");
    EXPECT_EQ(regions({true, false, false, false, false, true}), "anywhere but 10.0.0.0/8");
    EXPECT_EQ(
        regions({true, false, false, true, false, false}),
        "anywhere but 10.0.0.0/8 and 11.0.0.0/8 and 10.1.0.0/16");
    EXPECT_EQ(regions({false, false, false, false, true, true}), "10.128.0.0/9 and 11.0.0.0/8");
    EXPECT_EQ(regions({false, false, true, false, false, false}), "10.0.0.0/9 but 10.1.0.0/16");
}

bool passes(const NetworkLines& network, const Sample& sample, std::optional<std::size_t>& line) {
    line = decidingLine(network, sample.direction, sample.kind, sample.remote, sample.port);
    return !line || network.lines[*line].passes;
}

/// Each sample is in no change if its verdict is the same, else in exactly one.
void expectExact(const NetworkLines& before, const NetworkLines& now) {
    const std::array both{before, now};
    const auto found = changes(&before, &now);
    for (const Sample& sample : samplesOf(both)) {
        std::optional<std::size_t> oldLine;
        std::optional<std::size_t> newLine;
        const bool old = passes(before, sample, oldLine);
        const bool young = passes(now, sample, newLine);
        std::size_t count = 0;
        for (const PacketChange& change : found) {
            if (change.direction != sample.direction ||
                !change.matches(sample.kind, sample.remote, sample.port)) {
                continue;
            }
            ++count;
            ASSERT_EQ(change.passes, young);
            ASSERT_EQ(
                before.lines[change.before.value()].ruleNumber,
                before.lines[oldLine.value()].ruleNumber);
            ASSERT_EQ(
                now.lines[change.now.value()].ruleNumber, now.lines[newLine.value()].ruleNumber);
        }
        ASSERT_EQ(count, old == young ? 0U : 1U);
    }
}

TEST(DifferencesTest, AgreeWithEveryPacketAtTheBordersOfRandomPolicies) {
    test::RandomPolicies random(5);
    for (int i = 0; i < 1500 && !testing::Test::HasFailure(); ++i) {
        std::array<FirewallNetworkPolicy, 2> policies;
        std::vector<FirewallRule> rules(random.below(7));
        for (FirewallRule& made : rules) {
            made = random.rule();
            if (random.chance(2)) {
                made.remoteCIDR = random.oneOf<std::string>(
                    {"10.0.0.0/30", "10.0.0.0/31", "10.0.0.2/31", "10.0.0.1", "any"});
                made.ports = random.oneOf<std::string>({"", "66-68", "67", "68-70"});
            }
        }
        for (FirewallNetworkPolicy& policy : policies) {
            policy.subnetCIDR = "192.168.64.0/24";
            policy.policy.enabled = true;
            policy.policy.defaultInbound = FirewallRule::allActions.at(random.below(2));
            for (const FirewallRule& made : rules) {
                if (!random.chance(3)) {
                    policy.policy.rules.push_back(made);
                }
            }
        }
        expectExact(linesOf(policies[0]), linesOf(policies[1]));
    }
}

TEST(DifferencesTest, KnowWhoGovernsWhichAddress) {
    const auto lists = [](const std::vector<const char*>& subnets) {
        std::vector<FirewallNetworkPolicy> list;
        for (const char* subnet : subnets) {
            FirewallNetworkPolicy made;
            made.subnetCIDR = subnet;
            made.policy.enabled = true;
            list.push_back(made);
        }
        return enforcedList(list, {}).ruleset;
    };
    const auto number = [](std::optional<std::size_t> network) {
        return network ? std::to_string(*network) : "none";
    };
    std::vector<std::string> texts;
    for (const GovernedPart& part : governedParts(
             lists({"192.168.64.0/20", "192.168.64.0/24"}),
             lists({"192.168.64.0/24", "192.168.64.0/20", "192.168.128.0/24"}))) {
        texts.push_back(
            words(part.addresses) + ": " + number(part.before) + " -> " + number(part.now));
    }

    EXPECT_THAT(
        texts,
        ElementsAre(
            "192.168.128.0/24: none -> 2",
            "192.168.64.0/24: 0 -> 0",
            "192.168.64.0/20 but 192.168.64.0/24: 0 -> 1"));
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
