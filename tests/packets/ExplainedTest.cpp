// SPDX-License-Identifier: MIT
//
// What the analysis says of a packet, compared with what the kernel does with it: the verdict by
// who gets an answer, the line that decides by pfctl's counters.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/analysis/Enforced.h"
#include "firewall/analysis/Listing.h"
#include "firewall/analysis/Packet.h"
#include "firewall/analysis/Verdict.h"
#include "firewall/policy/AnchorText.h"
#include "tests/packets/PacketTest.h"

namespace tarnvale::test {
namespace {

using FirewallAnalysis::Crossing;
using FirewallAnalysis::Ruleset;
using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;

/// The same numbers in every run.
class Dice {
public:
    explicit Dice(unsigned seed) : numbers_(seed) {}

    std::size_t below(std::size_t bound) { return numbers_() % bound; }
    template <class Container>
    const auto& oneOf(const Container& values) {
        return values[below(std::size(values))];
    }

private:
    std::mt19937 numbers_;
};

constexpr std::array remotes{
    "any",
    "any",
    "0.0.0.0/1",
    "203.0.113.0/24",
    "203.0.113.9/32",
    "10.99.0.7/8",
    "192.168.64.0/24",
    "192.168.65.2",
    "192.168.64.1",
    "192.168.1.1/16"};
constexpr std::array ports{"", "22", "53", "443", "22-53", "8000-8080", "80:80"};
constexpr std::array<std::uint16_t, 5> askedPorts{22, 53, 443, 8040, 8081};

FirewallRule randomRule(Dice& dice) {
    FirewallRule rule;
    rule.enabled = dice.below(6) > 0;
    rule.direction = dice.oneOf(FirewallRule::allDirections);
    rule.action = dice.oneOf(FirewallRule::allActions);
    rule.proto = dice.oneOf(FirewallRule::allProtos);
    rule.remoteCIDR = dice.oneOf(remotes);
    rule.ports = dice.oneOf(ports);
    return rule;
}

FirewallNetworkPolicy randomNetwork(Dice& dice, const std::string& net) {
    FirewallNetworkPolicy network;
    network.subnetCIDR = net + ".0/24";
    network.gatewayIPv4 = net + ".1";
    network.dnsProxyEnabled = dice.below(2) == 0;
    network.policy.enabled = true;
    network.policy.defaultInbound = dice.oneOf(FirewallRule::allActions);
    network.policy.defaultOutbound = dice.oneOf(FirewallRule::allActions);
    for (std::size_t left = dice.below(8); left > 0; --left) {
        network.policy.rules.push_back(randomRule(dice));
    }
    return network;
}

constexpr std::array<std::pair<Host, Host>, 17> pairs{{
    {vm1, vm2},
    {vm1, vm3},
    {vm1, outside},
    {vm1, office},
    {vm1, gateway64},
    {vm1, gateway65},
    {vm1, uplink},
    {vm3, vm1},
    {vm3, outside},
    {vm3, gateway65},
    {outside, vm1},
    {outside, vm3},
    {office, vm2},
    {office, vm3},
    {gateway64, vm1},
    {gateway65, vm3},
    {uplink, vm2},
}};

std::vector<Exchange> randomExchanges(Dice& dice, NetworkLab& lab) {
    std::vector<Exchange> exchanges;
    for (const auto& [from, to] : pairs) {
        for (const Protocol protocol : {Protocol::tcp, Protocol::udp, Protocol::ping}) {
            if (dice.below(2) == 0) {
                exchanges.push_back(
                    {.protocol = protocol,
                     .from = from,
                     .to = to,
                     .port = dice.oneOf(askedPorts),
                     .fromPort = lab.unusedPort()});
            }
        }
    }
    return exchanges;
}

/// As a user would write it.
std::string packetText(const Exchange& exchange) {
    const std::string from = exchange.from.address;
    const std::string to = exchange.to.address;
    if (exchange.protocol == Protocol::ping) {
        return "icmp " + from + " -> " + to;
    }
    return std::string(rawValue(exchange.protocol)) + " " + from + ":" +
           std::to_string(exchange.fromPort) + " -> " + to + ":" + std::to_string(exchange.port);
}

/// The places in the anchor of the lines that have counted a packet.
std::set<std::size_t> countedLines() {
    const auto report = FirewallAnalysis::readReport(
        "== pf status ==\n\n\n== " + std::string(anchor) + " ==\n" +
        pfctl({"-a", anchor, "-v", "-sr"}).output);
    std::set<std::size_t> counted;
    for (std::size_t i = 0; i < report.value().lines.size(); ++i) {
        if (report->lines[i].counters.value().packets > 0) {
            counted.insert(i);
        }
    }
    return counted;
}

class ExplainedTest : public PacketTest {
protected:
    void compare(const std::vector<FirewallNetworkPolicy>& networks, Dice& dice) {
        const std::string text = NetworkFirewall::anchorText(networks, {});
        Ruleset ruleset = FirewallAnalysis::enforcedList(networks, {}).ruleset;
        ruleset.hostAddresses.push_back(
            FirewallAnalysis::parsePacket(std::string("icmp ") + uplink.address + " -> 0.0.0.0")
                .source.address.value());
        ASSERT_NO_FATAL_FAILURE(load(text));

        const std::vector<Exchange> exchanges = randomExchanges(dice, *lab);
        std::vector<bool> expected;
        std::set<std::size_t> deciding;
        for (const Exchange& exchange : exchanges) {
            const auto verdict = FirewallAnalysis::judge(
                ruleset, FirewallAnalysis::parsePacket(packetText(exchange)));
            expected.push_back(verdict.passes());
            for (const Crossing& crossing : verdict.crossings) {
                if (crossing.line) {
                    deciding.insert(*crossing.line + firstLineOf(ruleset, *crossing.network));
                }
                if (!crossing.passes) {
                    break;
                }
            }
        }
        const std::vector<Outcome> outcomes = lab->run(exchanges, expected);

        for (std::size_t i = 0; i < exchanges.size(); ++i) {
            ASSERT_EQ(outcomes[i], expected[i] ? Outcome::answered : Outcome::silent)
                << packetText(exchanges[i]) << " under\n"
                << text;
        }
        ASSERT_EQ(countedLines(), deciding) << text << pfctl({"-a", anchor, "-v", "-sr"}).output;
    }

private:
    static std::size_t firstLineOf(const Ruleset& ruleset, std::size_t network) {
        std::size_t lines = 0;
        for (std::size_t i = 0; i < network; ++i) {
            lines += ruleset.networks[i].lines.size();
        }
        return lines;
    }
};

TEST_F(ExplainedTest, VerdictsAndDecidingLinesAreTheKernels) {
    Dice dice(11);
    ASSERT_EQ(pfctl({"-E"}).status, 0);

    for (int i = 0; i < 60 && !HasFatalFailure(); ++i) {
        compare({randomNetwork(dice, "192.168.64"), randomNetwork(dice, "192.168.65")}, dice);
    }
}

}  // namespace
}  // namespace tarnvale::test
