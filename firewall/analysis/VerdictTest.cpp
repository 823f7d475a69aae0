// SPDX-License-Identifier: MIT
//
// Verdicts on single packets, in words and against the model of pf that the packet tests compare
// the kernel with.

#include "firewall/analysis/Verdict.h"

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "firewall/analysis/Enforced.h"
#include "firewall/policy/AnchorText.h"
#include "tests/support/PacketFilterModel.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::FirewallAnalysis {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;

/// The networks of examples/lab.json and examples/isolated.json.
Ruleset labAndIsolated() {
    FirewallNetworkPolicy lab;
    lab.subnetCIDR = "192.168.64.0/24";
    lab.gatewayIPv4 = "192.168.64.1";
    lab.dnsProxyEnabled = true;
    lab.policy.enabled = true;
    lab.policy.defaultInbound = FirewallRule::Action::deny;
    lab.policy.rules = {
        {.id = {},
         .enabled = true,
         .proto = FirewallRule::Proto::tcp,
         .remoteCIDR = "any",
         .ports = "22"},
        {.id = {},
         .enabled = true,
         .direction = FirewallRule::Direction::outbound,
         .action = FirewallRule::Action::deny,
         .remoteCIDR = "10.0.0.0/8",
         .ports = ""}};
    FirewallNetworkPolicy isolated;
    isolated.subnetCIDR = "192.168.65.0/24";
    isolated.gatewayIPv4 = "192.168.65.1";
    isolated.dnsProxyEnabled = true;
    isolated.policy.enabled = true;
    isolated.policy.defaultInbound = FirewallRule::Action::deny;
    isolated.policy.defaultOutbound = FirewallRule::Action::deny;
    return enforcedList({lab, isolated}, {}).ruleset;
}

/// "in 0/5 blocks, out 1/6 blocks": network and line of each crossing.
std::string shown(const Verdict& verdict) {
    std::string text;
    for (const Crossing& crossing : verdict.crossings) {
        text += text.empty() ? "" : ", ";
        text += crossing.direction == Direction::in ? "in " : "out ";
        if (crossing.line) {
            text += std::to_string(*crossing.network) + "/" + std::to_string(*crossing.line) + " ";
        }
        text += crossing.passes ? "passes" : "blocks";
    }
    return text;
}

TEST(VerdictTest, NamesTheLineAtEachCrossing) {
    // Lab's lines: 0 and 1 DHCP, 2 and 3 DNS, 4 and 5 the rules, 6 and 7 the defaults.
    struct Case {
        const char* packet = nullptr;
        const char* verdict = nullptr;
    };
    const std::vector<Case> cases{
        {"tcp 192.168.64.2 -> 203.0.113.10:443", "in 0/6 passes, out passes"},
        {"icmp 192.168.64.2 -> 10.20.0.5", "in 0/5 blocks, out passes"},
        {"udp 192.168.64.2 -> 192.168.64.1:53", "in 0/2 passes"},
        {"tcp 192.168.64.2 -> 192.168.64.1:53", "in 0/3 passes"},
        {"tcp 192.168.64.2 -> 192.168.64.3:80", ""},
        {"tcp 203.0.113.10 -> 192.168.64.2:22", "in passes, out 0/4 passes"},
        {"tcp 203.0.113.10 -> 198.51.100.7:22", "in passes, out passes"},
        {"tcp 203.0.113.10 -> 192.168.64.2:80", "in passes, out 0/7 blocks"},
        {"tcp 192.168.64.1 -> 192.168.64.2:80", "out 0/7 blocks"},
        {"tcp 192.168.64.2 -> 192.168.65.2:22", "in 0/6 passes, out 1/5 blocks"},
        {"tcp 192.168.65.2 -> 192.168.64.2:22", "in 1/4 blocks, out 0/4 passes"},
        {"tcp 192.168.64.2 -> 192.168.65.1:22", "in 0/6 passes"},
        {"tcp 192.168.65.1 -> 192.168.64.1:22", "out 0/4 passes, in 1/4 blocks"},
        {"udp 192.168.65.2:68 -> 192.168.65.1:67", "in 1/0 passes"},
        {"udp 192.168.65.2 -> 192.168.65.1:67", "in 1/4 blocks"},
        {"udp 192.168.65.1:67 -> 192.168.65.2:68", "out 1/1 passes"},
        {"udp 192.168.64.2 -> 192.168.64.255:9", "in 0/6 passes"},
        {"udp 192.168.65.2 -> 224.0.0.251:5353", "in 1/4 blocks"},
        {"udp 192.168.65.2 -> 239.255.255.250:1900", "in 1/4 blocks"},
        {"udp 0.0.0.0:68 -> 255.255.255.255:67", "in passes"},
        {"47 192.168.65.2 -> 203.0.113.10", "in 1/4 blocks, out passes"},
        {"tcp fd00::2 -> [2001:db8::1]:443", ""}};
    const Ruleset ruleset = labAndIsolated();
    for (const auto& [packet, verdict] : cases) {
        EXPECT_EQ(shown(judge(ruleset, parsePacket(packet))), verdict) << packet;
    }
}

TEST(VerdictTest, PointsAtTheCrossingThatDecides) {
    const Ruleset ruleset = labAndIsolated();

    const auto blockedTwice = judge(ruleset, parsePacket("tcp 192.168.65.2 -> 192.168.64.2:80"));
    ASSERT_NE(blockedTwice.deciding(), nullptr);
    EXPECT_EQ(blockedTwice.deciding()->direction, Direction::in);
    EXPECT_FALSE(blockedTwice.passes());

    const auto passed = judge(ruleset, parsePacket("tcp 192.168.64.2 -> 203.0.113.10:443"));
    ASSERT_NE(passed.deciding(), nullptr);
    EXPECT_EQ(passed.deciding()->line, 6U);
    EXPECT_TRUE(passed.passes());

    const auto elsewhere = judge(ruleset, parsePacket("tcp 203.0.113.10 -> 203.0.113.11:443"));
    EXPECT_EQ(elsewhere.deciding(), nullptr);
    EXPECT_TRUE(elsewhere.passes());
}

TEST(VerdictTest, AsksTheFirstNetworkThatHasTheAddress) {
    auto small = FirewallNetworkPolicy{};
    small.subnetCIDR = "192.168.64.0/24";
    small.policy.enabled = true;
    auto large = small;
    large.subnetCIDR = "192.168.64.0/20";
    large.policy.defaultOutbound = FirewallRule::Action::deny;
    const Packet inBoth = parsePacket("tcp 192.168.64.2 -> 1.1.1.1:443");
    const Packet inTheLarge = parsePacket("tcp 192.168.65.2 -> 1.1.1.1:443");

    EXPECT_TRUE(judge(enforcedList({small, large}, {}).ruleset, inBoth).passes());
    EXPECT_FALSE(judge(enforcedList({small, large}, {}).ruleset, inTheLarge).passes());
    EXPECT_FALSE(judge(enforcedList({large, small}, {}).ruleset, inBoth).passes());
}

test::Flow flowOf(const Packet& packet) {
    return {
        .protocol = packet.protocol == 6    ? test::Protocol::tcp
                    : packet.protocol == 17 ? test::Protocol::udp
                                            : test::Protocol::ping,
        .source = packet.source.address.value(),
        .destination = packet.destination.address.value(),
        .sourcePort = packet.source.port.value_or(40000),
        .destinationPort = packet.destination.port.value_or(0)};
}

/// Addresses and ports at and beside the borders of everything that the policies name.
class Borders {
public:
    explicit Borders(const Ruleset& ruleset) {
        for (const NetworkLines& network : ruleset.networks) {
            add(network.subnet);
            for (const Line& line : network.lines) {
                add(line.remote);
                ports_.push_back(line.ports.first);
                ports_.push_back(line.ports.last);
                ports_.push_back(static_cast<std::uint16_t>(line.ports.first - 1));
                ports_.push_back(static_cast<std::uint16_t>(line.ports.last + 1));
            }
        }
        for (const Address address : ruleset.hostAddresses) {
            addresses_.push_back(address);
        }
    }

    Packet packet(test::RandomPolicies& random) const {
        Packet made;
        made.protocol = random.oneOf<std::uint8_t>({6, 17, 17, 1});
        made.source.address = random.oneOf(addresses_);
        made.destination.address = random.oneOf(addresses_);
        if (made.protocol != 1) {
            made.source.port = random.oneOf<std::uint16_t>({67, 68, 40000});
            made.destination.port = random.oneOf(ports_);
        }
        return made;
    }

private:
    void add(const AddressRange& range) {
        addresses_.insert(
            addresses_.end(), {range.first, range.last, range.first - 1, range.last + 1});
    }

    std::vector<Address> addresses_{0, ~Address{0}, 0x08080808};
    std::vector<std::uint16_t> ports_{0, 22, 53, 67, 68, 65535};
};

TEST(VerdictTest, AgreesWithTheModelLineByLine) {
    test::RandomPolicies random(7);
    std::size_t judged = 0;
    for (int i = 0; i < 600; ++i) {
        const auto list = enforcedList(random.networks(6), {});
        std::vector<FirewallNetworkPolicy> policies;
        std::vector<std::size_t> firstLines{0};
        for (std::size_t j = 0; j < list.places.size(); ++j) {
            policies.push_back(list.networks.at(list.places[j]).policy);
            firstLines.push_back(firstLines.back() + list.ruleset.networks[j].lines.size());
        }
        const std::string anchor = NetworkFirewall::anchorText(policies, {});
        test::PacketFilterModel loaded;
        loaded.load(anchor);
        const Borders borders(list.ruleset);
        for (int j = 0; j < 100; ++j) {
            const Packet packet = borders.packet(random);
            for (const Crossing& crossing : judge(list.ruleset, packet).crossings) {
                test::PacketFilterModel model = loaded;  // without states
                const bool passes = model.passes(
                    crossing.direction == Direction::in ? test::Direction::in
                                                        : test::Direction::out,
                    flowOf(packet));

                ASSERT_EQ(crossing.passes, passes) << text(packet) << '\n' << anchor;
                std::vector<std::size_t> deciding(model.matches().size(), 0);
                if (crossing.line) {
                    deciding.at(firstLines.at(*crossing.network) + *crossing.line) = 1;
                }
                ASSERT_EQ(model.matches(), deciding) << text(packet) << '\n' << anchor;
                ++judged;
            }
        }
    }
    EXPECT_GT(judged, 30'000U);
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
