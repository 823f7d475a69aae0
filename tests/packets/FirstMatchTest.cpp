// SPDX-License-Identifier: MIT
//
// Random rulesets, and what hosts can say to each other under them, compared with the model.

#include <algorithm>
#include <array>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/packets/PacketTest.h"
#include "tests/support/PacketFilterModel.h"

namespace tarnvale::test {
namespace {

/// The same numbers in every run.
class Dice {
public:
    explicit Dice(unsigned seed) : numbers_(seed) {}

    template <typename Container>
    const auto& oneOf(const Container& values) {
        return values[numbers_() % std::size(values)];
    }
    std::size_t below(std::size_t bound) { return numbers_() % bound; }

private:
    std::mt19937 numbers_;
};

constexpr std::array allDefaults{Default::allow, Default::deny};
constexpr std::array subnets{"192.168.64.0/24", "192.168.65.0/24"};

/// Those that hold a host of the lab and those that just miss one.
constexpr std::array remotes{
    "any",
    "any",
    "0.0.0.0/0",
    "0.0.0.0/1",
    "128.0.0.0/1",
    "203.0.113.0/24",
    "203.0.113.10/32",
    "203.0.113.9/32",
    "203.0.113.8/30",
    "203.0.113.77/24",
    "10.20.0.5/32",
    "10.0.0.7/8",
    "192.168.64.0/24",
    "192.168.65.0/24",
    "192.168.64.3/32",
    "192.168.65.2/31",
    "192.168.1.1/16",
};
constexpr std::array portTexts{
    "22", "53", "443", "8040", "22:53", "53:443", "8000:8080", "8041:8080", "80:80", "1:65535"};
constexpr std::array<std::uint16_t, 7> askedPorts{22, 53, 443, 8000, 8040, 8080, 8081};

std::string randomRule(Dice& dice, const std::string& subnet) {
    const std::string protocol =
        dice.oneOf(std::array{"", "proto tcp ", "proto udp ", "proto icmp "});
    const bool outbound = dice.below(2) == 0;
    const bool pass = dice.below(2) == 0;
    const std::string remote = dice.oneOf(remotes);
    std::string rule = pass ? "pass " : "block drop ";
    rule += outbound ? "in quick " : "out quick ";
    rule += protocol + "from " + (outbound ? subnet + " to " + remote : remote + " to " + subnet);
    if ((protocol == "proto tcp " || protocol == "proto udp ") && dice.below(4) > 0) {
        rule += std::string(" port ") + dice.oneOf(portTexts);
    }
    return rule + (pass ? " keep state" : "");
}

/// The lines of one network: perhaps DNS to its gateway, then up to seven rules.
std::string randomNetwork(
    Dice& dice, const std::string& subnet, Default outbound, Default inbound) {
    std::vector<std::string> rules;
    if (dice.below(2) == 0) {
        const std::string gateway = subnet.substr(0, subnet.rfind('.')) + ".1/32";
        for (const char* protocol : {"udp", "tcp"}) {
            std::string rule = "pass in quick proto ";
            rule.append(protocol).append(" from ").append(subnet);
            rule.append(" to ").append(gateway).append(" port 53 keep state");
            rules.push_back(std::move(rule));
        }
    }
    for (std::size_t count = dice.below(8); count > 0; --count) {
        rules.push_back(randomRule(dice, subnet));
    }
    return network(subnet, outbound, inbound, rules);
}

/// Who asks whom: across the router both ways, to it and from it, and inside one network.
constexpr std::array<std::pair<Host, Host>, 22> pairs{{
    {vm1, vm2},        {vm1, vm3},
    {vm1, outside},    {vm1, office},
    {vm1, gateway64},  {vm1, gateway65},
    {vm1, uplink},     {vm2, outside},
    {vm3, vm1},        {vm3, vm2},
    {vm3, outside},    {vm3, office},
    {vm3, gateway65},  {outside, vm1},
    {outside, vm2},    {outside, vm3},
    {office, vm1},     {office, vm3},
    {gateway64, vm1},  {gateway65, vm3},
    {uplink, outside}, {gateway64, gateway64},
}};

std::vector<Exchange> randomExchanges(Dice& dice, NetworkLab& lab) {
    std::vector<Exchange> exchanges;
    for (const auto& [from, to] : pairs) {
        std::vector<Protocol> protocols{
            Protocol::tcp, Protocol::tcp, Protocol::tcp, Protocol::udp, Protocol::udp};
        // A host's echo to itself is one flow in both directions for pf, two for Linux.
        if (from.address != to.address) {
            protocols.push_back(Protocol::ping);
        }
        for (const Protocol protocol : protocols) {
            exchanges.push_back(
                {.protocol = protocol,
                 .from = from,
                 .to = to,
                 .port = dice.oneOf(askedPorts),
                 .fromPort = lab.unusedPort()});
        }
    }
    return exchanges;
}

class FirstMatchTest : public PacketTest {
protected:
    /// Loads random rulesets, of which the first network has these defaults, one after the other.
    void compareWithModel(Default outbound, Default inbound, unsigned seed);
};

void FirstMatchTest::compareWithModel(Default outbound, Default inbound, unsigned seed) {
    constexpr int rulesetCount = 55;
    Dice dice(seed);
    ASSERT_EQ(pfctl({"-E"}).status, 0);

    for (int i = 0; i < rulesetCount; ++i) {
        std::string ruleset = randomNetwork(dice, subnets[0], outbound, inbound);
        if (dice.below(4) > 0) {
            ruleset +=
                randomNetwork(dice, subnets[1], dice.oneOf(allDefaults), dice.oneOf(allDefaults));
        }
        ASSERT_NO_FATAL_FAILURE(load(ruleset));

        const std::vector<Exchange> exchanges = randomExchanges(dice, *lab);
        PacketFilterModel model;
        model.load(ruleset);
        std::vector<bool> expected;
        std::transform(
            exchanges.begin(),
            exchanges.end(),
            std::back_inserter(expected),
            [&](const Exchange& exchange) { return model.answers(exchange); });
        const std::vector<Outcome> outcomes = lab->run(exchanges, expected);

        for (std::size_t j = 0; j < exchanges.size(); ++j) {
            ASSERT_EQ(outcomes[j], expected[j] ? Outcome::answered : Outcome::silent)
                << description(exchanges[j]) << " under\n"
                << ruleset;
        }
    }
}

TEST_F(FirstMatchTest, DecidesWhereTheDefaultsAllowBothDirections) {
    compareWithModel(Default::allow, Default::allow, 1);
}

TEST_F(FirstMatchTest, DecidesWhereInboundIsDenied) {
    compareWithModel(Default::allow, Default::deny, 2);
}

TEST_F(FirstMatchTest, DecidesWhereOutboundIsDenied) {
    compareWithModel(Default::deny, Default::allow, 3);
}

TEST_F(FirstMatchTest, DecidesWhereBothDirectionsAreDenied) {
    compareWithModel(Default::deny, Default::deny, 4);
}

}  // namespace
}  // namespace tarnvale::test
