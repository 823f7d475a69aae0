// SPDX-License-Identifier: MIT

#include "firewall/analysis/Reach.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/analysis/Enforced.h"
#include "firewall/policy/PolicyJson.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::FirewallAnalysis {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using testing::ElementsAre;

Ruleset examples() {
    std::vector<FirewallNetworkPolicy> list;
    for (const char* name : {"lab", "isolated"}) {
        const auto networks = NetworkFirewall::decodePolicies(
            test::contentOf(TARNVALE_SOURCE_DIR "/examples/" + std::string(name) + ".json"));
        list.insert(list.end(), networks.begin(), networks.end());
    }
    return enforcedList(list, {}).ruleset;
}

std::string nameOf(const Party& party) {
    switch (party.sort) {
        case Party::Sort::network:
            return "network " + std::to_string(party.network.value());
        case Party::Sort::host:
            return "host";
        case Party::Sort::elsewhere:
            return "elsewhere";
        case Party::Sort::remote:
            break;
    }
    return text(party.prefix);
}

TEST(ReachTest, SaysWhoReachesWhom) {
    const Ruleset ruleset = examples();
    const auto all = parties(ruleset);
    std::vector<std::string> table;
    for (const Party& from : all) {
        for (const Party& to : all) {
            if (const auto found = reach(ruleset, from, to)) {
                table.push_back(nameOf(from) + " -> " + nameOf(to) + ": " + words(found->passage));
            }
        }
    }

    EXPECT_THAT(
        table,
        ElementsAre(
            "network 0 -> network 1: nothing",
            "network 0 -> host: everything",
            "network 0 -> elsewhere: everything",
            "network 0 -> 10.0.0.0/8: nothing",
            "network 1 -> network 0: nothing",
            "network 1 -> host: tcp and udp 53",
            "network 1 -> elsewhere: nothing",
            "network 1 -> 10.0.0.0/8: nothing",
            "host -> network 0: tcp 22",
            "host -> network 1: nothing",
            "elsewhere -> network 0: tcp 22",
            "elsewhere -> network 1: nothing",
            "10.0.0.0/8 -> network 0: tcp 22",
            "10.0.0.0/8 -> network 1: nothing"));
    const auto office = std::ranges::find(all, std::string("10.0.0.0/8"), nameOf);
    EXPECT_THAT(
        reach(ruleset, all[0], *office)->rules,
        ElementsAre(RuleOfNetwork{.network = 0, .number = 2}));
}

TEST(ReachTest, KnowsTheHostByItsAddressInEachNetwork) {
    FirewallNetworkPolicy lab;
    lab.subnetCIDR = "192.168.64.0/24";
    lab.gatewayIPv4 = "192.168.64.1";
    lab.policy.enabled = true;
    lab.policy.rules.resize(1);
    lab.policy.rules[0].direction = NetworkFirewall::FirewallRule::Direction::outbound;
    lab.policy.rules[0].action = NetworkFirewall::FirewallRule::Action::deny;
    lab.policy.rules[0].enabled = true;
    lab.policy.rules[0].remoteCIDR = "192.168.64.1";
    lab.policy.rules[0].ports = "";
    FirewallNetworkPolicy other;
    other.subnetCIDR = "192.168.65.0/24";
    other.gatewayIPv4 = "192.168.65.1";
    other.policy.enabled = true;
    const Ruleset ruleset = enforcedList({lab, other}, {}).ruleset;

    const auto all = parties(ruleset);

    std::vector<std::string> names;
    std::ranges::transform(all, std::back_inserter(names), nameOf);
    EXPECT_THAT(names, ElementsAre("network 0", "network 1", "host", "elsewhere"));
    EXPECT_EQ(words(reach(ruleset, all[0], all[2])->passage), "nothing");
    EXPECT_EQ(words(reach(ruleset, all[1], all[2])->passage), "everything");
}

TEST(ReachTest, SaysTheShorterOfWhatPassesAndWhatDoesNot) {
    Passage passage;
    EXPECT_EQ(words(passage), "nothing");
    for (auto& ports : passage) {
        ports.assign(1, PortRange{});
    }
    EXPECT_EQ(words(passage), "everything");
    passage.at(0) = {{.first = 0, .last = 21}, {.first = 23, .last = 65535}};
    EXPECT_EQ(words(passage), "everything but tcp 22");
    passage.at(0).clear();
    EXPECT_EQ(words(passage), "everything but tcp");
}

bool holds(const Passage& passage, Kind kind, std::uint16_t port) {
    return std::ranges::any_of(
        passage.at(static_cast<std::size_t>(kind)),
        [&](const PortRange& range) { return range.contains(port); });
}

/// Each party's member is an address that no narrower one has.
void expectOwnMembers(const std::vector<Party>& all) {
    for (const Party& party : all) {
        EXPECT_TRUE(party.prefix.contains(party.member));
        for (const Party& other : all) {
            EXPECT_FALSE(
                other.sort != Party::Sort::host && party.sort != Party::Sort::host &&
                other.prefix != party.prefix && party.prefix.contains(other.prefix) &&
                other.prefix.contains(party.member));
        }
    }
}

TEST(ReachTest, AgreesWithTheVerdictOnAnyPacket) {
    test::RandomPolicies random(8);
    std::size_t compared = 0;
    for (int i = 0; i < 250; ++i) {
        auto networks = random.networks(5);
        for (FirewallNetworkPolicy& network : networks) {
            network.policy.rules.push_back(random.rule());
            network.policy.rules.back().remoteCIDR =
                random.oneOf<std::string>({"10.0.0.0/8", "10.0.0.0/9", "10.0.0.0/30", "0.0.0.0/5"});
        }
        const Ruleset ruleset = enforcedList(networks, {}).ruleset;
        const auto all = parties(ruleset);
        expectOwnMembers(all);
        for (const Party& from : all) {
            for (const Party& to : all) {
                const auto found = reach(ruleset, from, to);
                if (!found || from.sort == Party::Sort::host || to.sort == Party::Sort::host) {
                    continue;
                }
                for (const std::uint16_t port :
                     std::to_array<std::uint16_t>({22, 53, 80, 443, 8000})) {
                    Packet packet;
                    packet.source.address = from.member;
                    packet.destination.address = to.member;
                    packet.destination.port = port;
                    const auto verdict = judge(ruleset, packet);
                    if (verdict.way != Way::throughHost) {
                        continue;
                    }
                    ASSERT_EQ(holds(found->passage, Kind::tcp, port), verdict.passes());
                    ++compared;
                }
            }
        }
    }
    EXPECT_GT(compared, 3'000U);
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
