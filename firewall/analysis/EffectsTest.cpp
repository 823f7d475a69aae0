// SPDX-License-Identifier: MIT

#include "firewall/analysis/Effects.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/AnchorText.h"
#include "tests/support/FirewallRule.h"
#include "tests/support/PacketSamples.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::FirewallAnalysis {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;
using Action = FirewallRule::Action;
using Proto = FirewallRule::Proto;
using Reason = IdleRule::Reason;
using test::rule;
using testing::ElementsAre;
using testing::IsEmpty;

FirewallRule allow(Proto proto, std::string remote, std::string ports = "") {
    return rule(Action::allow, proto, std::move(remote), std::move(ports));
}

FirewallRule deny(Proto proto, std::string remote, std::string ports = "") {
    return rule(Action::deny, proto, std::move(remote), std::move(ports));
}

/// Everything goes out but for the rules. Lines 0 and 1 are DHCP's; rules come from line 2 on.
NetworkLines network(std::vector<FirewallRule> rules, Action defaultOutbound = Action::allow) {
    FirewallNetworkPolicy made;
    made.subnetCIDR = "192.168.64.0/24";
    made.policy.enabled = true;
    made.policy.defaultOutbound = defaultOutbound;
    made.policy.rules = std::move(rules);
    return linesOf(made);
}

IdleRule shadowed(std::size_t number, std::vector<std::size_t> lines) {
    return {.number = number, .reason = Reason::shadowed, .lines = std::move(lines)};
}

IdleRule redundant(std::size_t number, std::vector<std::size_t> lines) {
    return {.number = number, .reason = Reason::redundant, .lines = std::move(lines)};
}

TEST(EffectsTest, FindsARuleBehindOneThatTakesAll) {
    EXPECT_THAT(
        idleRules(
            network({deny(Proto::any, "10.0.0.0/8"), allow(Proto::tcp, "10.1.0.0/16", "22")})),
        ElementsAre(shadowed(2, {2})));
    EXPECT_THAT(
        idleRules(network({deny(Proto::tcp, "any", "22"), deny(Proto::tcp, "any", "22")})),
        ElementsAre(shadowed(2, {2})));
}

TEST(EffectsTest, FindsARuleThatOthersTakeTogether) {
    EXPECT_THAT(
        idleRules(network(
            {deny(Proto::any, "10.0.0.0/9"),
             deny(Proto::any, "10.128.0.0/9"),
             allow(Proto::any, "10.0.0.0/8")})),
        ElementsAre(shadowed(3, {2, 3})));
    EXPECT_THAT(
        idleRules(network(
            {deny(Proto::tcp, "any", "1-1023"),
             deny(Proto::tcp, "10.0.0.0/8"),
             deny(Proto::udp, "any"),
             allow(Proto::any, "10.0.0.0/8", "80"),
             allow(Proto::any, "11.0.0.0/8", "1024")})),
        ElementsAre(shadowed(4, {2, 4}), redundant(5, {9})));
}

TEST(EffectsTest, FindsARuleThatWhatFollowsMakesNeedless) {
    EXPECT_THAT(
        idleRules(network({allow(Proto::tcp, "10.1.0.0/16", "22")})),
        ElementsAre(redundant(1, {3})));
    EXPECT_THAT(
        idleRules(network({deny(Proto::tcp, "10.1.0.0/16"), deny(Proto::any, "10.0.0.0/8")})),
        ElementsAre(redundant(1, {3})));
    EXPECT_THAT(
        idleRules(network(
            {allow(Proto::tcp, "10.1.0.0/16"),
             deny(Proto::any, "10.0.0.0/8"),
             deny(Proto::tcp, "10.0.0.0/8")})),
        ElementsAre(shadowed(3, {3})));
}

TEST(EffectsTest, KeepsOneOfTwoRulesThatMakeEachOtherNeedless) {
    // Each by itself could go: the first for the second's sake, the second for the third's.
    EXPECT_THAT(
        idleRules(network(
            {deny(Proto::tcp, "10.0.0.0/9"),
             deny(Proto::tcp, "10.0.0.0/8"),
             deny(Proto::any, "10.128.0.0/9")})),
        ElementsAre(redundant(2, {4})));
}

TEST(EffectsTest, NamesWhatStaysOfALongChain) {
    constexpr std::size_t count = 5000;
    std::vector<FirewallRule> rules;
    for (std::size_t last = 1; last <= count; ++last) {
        rules.push_back(deny(Proto::tcp, "any", "1-" + std::to_string(last)));
    }

    const auto idle = idleRules(network(rules));

    ASSERT_EQ(idle.size(), count - 1);
    for (std::size_t i = 0; i < idle.size(); ++i) {
        ASSERT_EQ(idle[i], redundant(i + 1, {1 + count}));
    }
}

TEST(EffectsTest, KnowsThatAnyWithPortsIsTcpAndUdpOnly) {
    EXPECT_THAT(
        idleRules(network({deny(Proto::any, "any", "1-65535"), deny(Proto::icmp, "any")})),
        IsEmpty());
    EXPECT_THAT(
        idleRules(network({deny(Proto::any, "any"), deny(Proto::icmp, "any")})),
        ElementsAre(shadowed(2, {2})));
    // Without ports it is about every protocol, so these three leave the others.
    EXPECT_THAT(
        idleRules(network(
            {deny(Proto::tcp, "any"),
             deny(Proto::udp, "any"),
             deny(Proto::icmp, "any"),
             deny(Proto::any, "any")})),
        ElementsAre(redundant(1, {5}), redundant(2, {5}), redundant(3, {5})));
}

TEST(EffectsTest, KnowsWhatDhcpAndDnsTake) {
    FirewallNetworkPolicy lab;
    lab.subnetCIDR = "192.168.64.0/24";
    lab.gatewayIPv4 = "192.168.64.1";
    lab.dnsProxyEnabled = true;
    lab.policy.enabled = true;
    lab.policy.rules = {deny(Proto::any, "192.168.64.1", "53"), deny(Proto::udp, "any", "67")};

    // DHCP asks from port 68; other packets to port 67 are left to rule 2.
    EXPECT_THAT(idleRules(linesOf(lab)), ElementsAre(shadowed(1, {2, 3})));
}

/// The line that decides when some rules are gone.
std::optional<std::size_t> decides(
    const NetworkLines& network, const Sample& sample, const std::vector<bool>& gone) {
    for (std::size_t i = 0; i < network.lines.size(); ++i) {
        const Line& line = network.lines[i];
        if (!gone[line.ruleNumber] && line.direction == sample.direction &&
            line.matches(sample.kind, sample.remote, sample.port)) {
            return i;
        }
    }
    return std::nullopt;
}

/// A packet, and which line decides on it.
struct Judged {
    Sample sample;
    std::size_t decider = 0;

    bool matches(const Line& line) const {
        return line.direction == sample.direction &&
               line.matches(sample.kind, sample.remote, sample.port);
    }
};

/// Compares with what each packet says.
class Checked {
public:
    explicit Checked(const NetworkLines& network) : network_(network) {
        for (const Line& line : network.lines) {
            ruleCount_ = std::max(ruleCount_, line.ruleNumber + 1);
        }
        const std::vector<bool> none(ruleCount_);
        for (const Sample& sample : samplesOf({&network, 1})) {
            samples_.push_back({sample, decides(network, sample, none).value()});
        }
    }

    void check(const std::vector<IdleRule>& idle) const {
        std::vector<bool> gone(ruleCount_);
        for (const IdleRule& rule : idle) {
            EXPECT_FALSE(gone[rule.number]);
            gone[rule.number] = true;
            EXPECT_EQ(rule.reason == Reason::shadowed, !everDecides(rule.number));
            checkLines(rule);
        }
        for (const IdleRule& rule : idle) {
            EXPECT_TRUE(
                rule.reason == Reason::shadowed ||
                std::ranges::none_of(rule.lines, [&](std::size_t place) {
                    return gone[network_.lines[place].ruleNumber];
                }));
        }
        EXPECT_TRUE(isTheSameWithout(gone)) << "the idle rules, together, change something";
        for (std::size_t rule = 1; rule < ruleCount_; ++rule) {
            if (!gone[rule] && exists(rule)) {
                std::vector<bool> oneMore = gone;
                oneMore[rule] = true;
                EXPECT_FALSE(isTheSameWithout(oneMore)) << "rule " << rule << " is idle, too";
            }
        }
    }

private:
    bool exists(std::size_t rule) const {
        return std::ranges::any_of(
            network_.lines, [&](const Line& line) { return line.ruleNumber == rule; });
    }

    bool everDecides(std::size_t rule) const {
        return std::ranges::any_of(samples_, [&](const Judged& judged) {
            return network_.lines[judged.decider].ruleNumber == rule;
        });
    }

    bool isTheSameWithout(const std::vector<bool>& gone) const {
        return std::ranges::all_of(samples_, [&](const Judged& judged) {
            const auto line = decides(network_, judged.sample, gone).value();
            return network_.lines[line].passes == network_.lines[judged.decider].passes;
        });
    }

    /// Each packet of the rule matches one of its lines; of a shadowed one, each of them takes one.
    void checkLines(const IdleRule& rule) const {
        for (const Judged& judged : samples_) {
            const Line& decider = network_.lines[judged.decider];
            const bool concerns =
                rule.reason == Reason::redundant
                    ? decider.ruleNumber == rule.number
                    : std::ranges::any_of(network_.lines, [&](const Line& line) {
                          return line.ruleNumber == rule.number && judged.matches(line);
                      });
            EXPECT_TRUE(!concerns || std::ranges::any_of(rule.lines, [&](std::size_t place) {
                const Line& line = network_.lines[place];
                return judged.matches(line) &&
                       (rule.reason == Reason::shadowed || line.passes == decider.passes);
            }));
        }
        if (rule.reason == Reason::shadowed && rule.lines.size() > 1) {
            for (const std::size_t place : rule.lines) {
                EXPECT_TRUE(std::ranges::any_of(
                    samples_, [&](const Judged& judged) { return judged.decider == place; }));
            }
        }
    }

    const NetworkLines& network_;
    std::size_t ruleCount_ = 1;
    std::vector<Judged> samples_;
};

/// Rules of a universe so small that they meet all the time.
FirewallRule crowdedRule(test::RandomPolicies& random) {
    return rule(
        random.chance(2) ? Action::allow : Action::deny,
        FirewallRule::allProtos.at(random.below(4)),
        random.oneOf<std::string>(
            {"any",
             "10.0.0.0/30",
             "10.0.0.0/31",
             "10.0.0.2/31",
             "10.0.0.0",
             "10.0.0.1",
             "10.0.0.2",
             "10.0.0.3",
             "10.0.0.9/29"}),
        random.oneOf<std::string>(
            {"", "", "66", "67", "68", "66-67", "67-68", "66-68", "1-65535", "53"}));
}

TEST(EffectsTest, AgreeWithEveryPacketOfASmallUniverse) {
    test::RandomPolicies random(3);
    std::size_t found = 0;
    for (int i = 0; i < 3000 && !testing::Test::HasFailure(); ++i) {
        std::vector<FirewallRule> rules(random.below(9));
        for (FirewallRule& rule : rules) {
            rule = crowdedRule(random);
            rule.direction = FirewallRule::allDirections.at(random.below(2));
        }
        const NetworkLines lines = network(rules, FirewallRule::allActions.at(random.below(2)));

        const auto idle = idleRules(lines);

        found += idle.size();
        Checked(lines).check(idle);
    }
    EXPECT_GT(found, 5000U);
}

TEST(EffectsTest, AgreeWithEveryPacketAtTheBordersOfRandomPolicies) {
    test::RandomPolicies random(4);
    for (int i = 0; i < 500 && !testing::Test::HasFailure(); ++i) {
        for (FirewallNetworkPolicy& policy : random.networks(3)) {
            policy.subnetCIDR = "192.168.64.0/24";
            const NetworkLines lines = linesOf(policy);
            Checked(lines).check(idleRules(lines));
        }
    }
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
