// SPDX-License-Identifier: MIT

#include "firewall/analysis/NetworkReach.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "firewall/analysis/Enforced.h"
#include "firewall/analysis/Verdict.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::FirewallAnalysis {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;

FirewallRule ruleNearTheNetworks(test::RandomPolicies& random) {
    FirewallRule rule = random.rule();
    rule.remoteCIDR = random.oneOf<std::string>(
        {"any",
         "192.168.0.0/16",
         "192.168.64.0/29",
         "192.168.64.8/29",
         "192.168.64.16/29",
         "192.168.64.8/30",
         "192.168.64.12/30",
         "192.168.64.9",
         "192.168.64.10",
         "192.168.64.23"});
    rule.ports = random.oneOf<std::string>({"", "21", "22", "22-23", "23"});
    return rule;
}

std::vector<FirewallNetworkPolicy> threeNetworks(test::RandomPolicies& random) {
    std::vector<FirewallNetworkPolicy> networks(3);
    for (std::size_t i = 0; i < networks.size(); ++i) {
        FirewallNetworkPolicy& network = networks[i];
        const std::string net = "192.168.64.";
        network.subnetCIDR = net + std::to_string(8 * i) + "/29";
        network.gatewayIPv4 = net + std::to_string(8 * i + 1);
        network.dnsProxyEnabled = random.chance(2);
        network.policy.enabled = true;
        network.policy.defaultInbound = FirewallRule::allActions.at(random.below(2));
        network.policy.defaultOutbound = FirewallRule::allActions.at(random.below(2));
        for (std::size_t left = random.below(5); left > 0; --left) {
            network.policy.rules.push_back(ruleNearTheNetworks(random));
        }
    }
    return networks;
}

/// The same by asking about every packet that differs from others.
bool isAnyPassed(const Ruleset& ruleset, std::size_t from, std::size_t to) {
    const AddressRange& sources = ruleset.networks[from].subnet;
    const AddressRange& destinations = ruleset.networks[to].subnet;
    Packet packet;
    for (Address source = sources.first + 2; source < sources.last; ++source) {
        for (Address target = destinations.first + 2; target < destinations.last; ++target) {
            for (const std::uint8_t protocol : std::to_array<std::uint8_t>({6, 17, 1, 47})) {
                for (const std::uint16_t port : std::to_array<std::uint16_t>({21, 22, 23, 24})) {
                    packet.protocol = protocol;
                    packet.source.address = source;
                    packet.destination.address = target;
                    packet.destination.port = port;
                    if (judge(ruleset, packet).passes()) {
                        return true;
                    }
                }
            }
        }
    }
    return false;
}

TEST(NetworkReachTest, AgreesWithEveryPacketOfASmallUniverse) {
    test::RandomPolicies random(9);
    std::size_t reaching = 0;
    std::size_t compared = 0;
    for (int i = 0; i < 400 && !testing::Test::HasFailure(); ++i) {
        const Ruleset ruleset = enforcedList(threeNetworks(random), {}).ruleset;
        const NetworkReach reach(ruleset);
        for (std::size_t from = 0; from < 3; ++from) {
            for (std::size_t to = 0; to < 3; ++to) {
                if (from == to) {
                    continue;
                }
                const bool expected = isAnyPassed(ruleset, from, to);
                EXPECT_EQ(reach.reaches(from, to), expected);
                EXPECT_TRUE(!expected || (reach.mayReach(from) && reach.mayBeReached(to)));
                reaching += expected ? 1 : 0;
                ++compared;
            }
        }
    }
    EXPECT_GT(reaching, compared / 4);
    EXPECT_LT(reaching, compared / 4 * 3);
}

FirewallRule outbound(FirewallRule::Action action, const char* remote, const char* ports) {
    return {
        .id = {},
        .enabled = true,
        .direction = FirewallRule::Direction::outbound,
        .action = action,
        .proto = FirewallRule::Proto::tcp,
        .remoteCIDR = remote,
        .ports = ports};
}

/// Whether machines of 192.168.64.0/24 reach 192.168.65.0/24, whose machines take tcp 22.
bool reachesTheOther(const std::vector<FirewallRule>& rules) {
    std::vector<FirewallNetworkPolicy> networks(2);
    for (FirewallNetworkPolicy& network : networks) {
        network.policy.enabled = true;
        network.policy.defaultInbound = FirewallRule::Action::deny;
        network.policy.defaultOutbound = FirewallRule::Action::deny;
    }
    networks[0].subnetCIDR = "192.168.64.0/24";
    networks[0].policy.rules = rules;
    networks[1].subnetCIDR = "192.168.65.0/24";
    networks[1].policy.rules = {outbound(FirewallRule::Action::allow, "any", "22")};
    networks[1].policy.rules[0].direction = FirewallRule::Direction::inbound;
    const Ruleset ruleset = enforcedList(networks, {}).ruleset;
    return NetworkReach(ruleset).reaches(0, 1);
}

TEST(NetworkReachTest, LooksAtWhatNarrowerPrefixesLeave) {
    constexpr auto allow = FirewallRule::Action::allow;
    constexpr auto deny = FirewallRule::Action::deny;

    EXPECT_TRUE(reachesTheOther({outbound(allow, "192.168.65.0/24", "")}));
    EXPECT_TRUE(reachesTheOther(
        {outbound(deny, "192.168.65.0/25", ""), outbound(allow, "192.168.65.0/24", "")}));
    EXPECT_FALSE(reachesTheOther(
        {outbound(deny, "192.168.65.0/25", ""),
         outbound(deny, "192.168.65.128/25", ""),
         outbound(allow, "192.168.65.0/24", "")}));
    // The ports of one part come behind those of the next.
    EXPECT_TRUE(reachesTheOther(
        {outbound(allow, "192.168.65.0/25", "80"), outbound(allow, "192.168.65.128/25", "22")}));
}

TEST(NetworkReachTest, FindsNoWayThroughThePortBetweenTwoThatAreOpen) {
    constexpr auto allow = FirewallRule::Action::allow;

    EXPECT_FALSE(reachesTheOther({outbound(allow, "any", "21"), outbound(allow, "any", "23")}));
    EXPECT_TRUE(reachesTheOther({outbound(allow, "any", "21"), outbound(allow, "any", "22")}));
}

TEST(NetworkReachTest, KnowsWhoIsOutOfReachAtOnce) {
    FirewallNetworkPolicy closed;
    closed.subnetCIDR = "192.168.64.0/24";
    closed.gatewayIPv4 = "192.168.64.1";
    closed.dnsProxyEnabled = true;
    closed.policy.enabled = true;
    closed.policy.defaultInbound = FirewallRule::Action::deny;
    closed.policy.defaultOutbound = FirewallRule::Action::deny;
    const Ruleset ruleset = enforcedList({closed}, {}).ruleset;
    const NetworkReach reach(ruleset);

    // Lines for DHCP and DNS reach no other network.
    EXPECT_FALSE(reach.mayReach(0));
    EXPECT_FALSE(reach.mayBeReached(0));
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
