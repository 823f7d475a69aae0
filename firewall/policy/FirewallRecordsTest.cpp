// SPDX-License-Identifier: MIT

#include "firewall/policy/FirewallRecords.h"

#include <functional>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::NetworkFirewall {
namespace {

using testing::ElementsAre;
using Proto = FirewallRule::Proto;

FirewallNetworkPolicy recordedNetwork() {
    return {
        .networkID = {{1}},
        .name = "Lab",
        .subnetCIDR = "192.168.64.0/24",
        .gatewayIPv4 = "192.168.64.1",
        .dnsProxyEnabled = false,
        .policy = {
            .enabled = true,
            .rules = {
                {.id = {{2}}, .remoteCIDR = "any", .ports = ""},
                {.id = {{3}}, .remoteCIDR = "", .ports = "22"}}}};
}

/// The network with every single field changed in turn.
std::vector<FirewallNetworkPolicy> variants() {
    std::vector<FirewallNetworkPolicy> variants;
    const auto add = [&](const std::function<void(FirewallNetworkPolicy&)>& change) {
        change(variants.emplace_back(recordedNetwork()));
    };
    add([](auto& n) { n.networkID.bytes[15] = 1; });
    add([](auto& n) { n.name = "lab"; });
    add([](auto& n) { n.subnetCIDR += " "; });
    add([](auto& n) { n.gatewayIPv4.reset(); });
    add([](auto& n) { n.gatewayIPv4 = ""; });
    add([](auto& n) { n.dnsProxyEnabled = true; });
    add([](auto& n) { n.policy.enabled = false; });
    add([](auto& n) { n.policy.defaultInbound = FirewallRule::Action::deny; });
    add([](auto& n) { n.policy.defaultOutbound = FirewallRule::Action::deny; });
    add([](auto& n) { n.policy.rules.pop_back(); });
    add([](auto& n) { std::swap(n.policy.rules[0], n.policy.rules[1]); });
    add([](auto& n) { n.policy.rules[0].id.bytes[0] = 9; });
    add([](auto& n) { n.policy.rules[0].enabled = true; });
    add([](auto& n) { n.policy.rules[0].direction = FirewallRule::Direction::outbound; });
    add([](auto& n) { n.policy.rules[0].action = FirewallRule::Action::deny; });
    add([](auto& n) { n.policy.rules[0].proto = Proto::icmp; });
    add([](auto& n) { n.policy.rules[0].remoteCIDR = "ANY"; });
    add([](auto& n) { n.policy.rules[1].ports = "23"; });
    return variants;
}

TEST(FirewallRecordsTest, EnumeratesItsWordsInOrder) {
    const auto words = [](const auto& cases) {
        std::vector<std::string> result;
        result.reserve(cases.size());
        for (const auto value : cases) {
            result.emplace_back(rawValue(value));
        }
        return result;
    };
    EXPECT_THAT(words(FirewallRule::allDirections), ElementsAre("inbound", "outbound"));
    EXPECT_THAT(words(FirewallRule::allActions), ElementsAre("allow", "deny"));
    EXPECT_THAT(words(FirewallRule::allProtos), ElementsAre("any", "tcp", "udp", "icmp"));
}

TEST(FirewallRecordsTest, OnlyIcmpCarriesNoPorts) {
    EXPECT_TRUE(carriesPorts(Proto::any));
    EXPECT_TRUE(carriesPorts(Proto::tcp));
    EXPECT_TRUE(carriesPorts(Proto::udp));
    EXPECT_FALSE(carriesPorts(Proto::icmp));
}

TEST(FirewallRecordsTest, EqualityGoesFieldByField) {
    EXPECT_EQ(recordedNetwork(), recordedNetwork());
    for (const FirewallNetworkPolicy& variant : variants()) {
        EXPECT_NE(variant, recordedNetwork());
    }
}

TEST(FirewallRecordsTest, HashesGoFieldByField) {
    const std::hash<FirewallNetworkPolicy> hash;
    EXPECT_EQ(hash(recordedNetwork()), hash(recordedNetwork()));
    for (const FirewallNetworkPolicy& variant : variants()) {
        EXPECT_NE(hash(variant), hash(recordedNetwork()));
    }
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
