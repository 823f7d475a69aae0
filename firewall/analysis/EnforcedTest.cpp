// SPDX-License-Identifier: MIT

#include "firewall/analysis/Enforced.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/AnchorText.h"
#include "firewall/policy/PolicyStore.h"
#include "firewall/policy/Review.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::FirewallAnalysis {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::HostAddress;
using Standing = ReviewedNetwork::Standing;
using testing::ElementsAre;

FirewallNetworkPolicy network(const std::string& subnet, bool enabled = true) {
    FirewallNetworkPolicy made;
    made.subnetCIDR = subnet;
    made.policy.enabled = enabled;
    return made;
}

TEST(EnforcedTest, SaysWhatBecomesOfEachNetwork) {
    const std::vector<HostAddress> hosts{
        {.interface = "en0", .bytes = {192, 168, 1, 20}, .prefixLength = 24}};

    const auto list = enforcedList(
        {network("192.168.64.9/24"),
         network("192.168.65.0/24", false),
         network("192.168.1.0/24"),
         network("192.168.64.0/24"),
         network("192.168.65.0/24")},
        hosts);

    std::vector<Standing> standings;
    for (const auto& reviewed : list.networks) {
        standings.push_back(reviewed.standing);
    }
    EXPECT_THAT(
        standings,
        ElementsAre(
            Standing::enforced,
            Standing::off,
            Standing::refused,
            Standing::claimed,
            Standing::enforced));
    EXPECT_EQ(list.networks[0].writtenSubnet, "192.168.64.9/24");
    EXPECT_EQ(list.networks[0].policy.subnetCIDR, "192.168.64.0/24");
    EXPECT_THAT(list.networks[2].problem, testing::StartsWith("192.168.1.0/24 overlaps en0"));
    EXPECT_EQ(list.networks[3].claimedBy, 0U);
    EXPECT_THAT(list.places, ElementsAre(0, 4));
    EXPECT_EQ(list.ruleset.networks.size(), 2U);
}

TEST(EnforcedTest, KnowsTheHostByItsAddressesAndTheGateways) {
    auto lab = network("192.168.64.0/24");
    lab.gatewayIPv4 = "192.168.64.1";
    auto strange = network("192.168.65.0/24");
    strange.gatewayIPv4 = "192.168.64.2";
    const std::vector<HostAddress> hosts{
        {.interface = "en0", .bytes = {203, 0, 113, 1}, .prefixLength = 24},
        {.interface = "en0", .bytes = std::vector<std::uint8_t>(16, 1), .prefixLength = 64}};

    EXPECT_THAT(
        enforcedList({lab, strange}, hosts).ruleset.hostAddresses,
        ElementsAre(0xCB007101, 0xC0A84001));
}

/// The networks that the helper's own merge and review leave, as `preview` shows them.
std::vector<FirewallNetworkPolicy> enforcedByTheHelper(std::vector<FirewallNetworkPolicy> list) {
    NetworkFirewall::PolicyStore store;
    store.owners["501"].policies = NetworkFirewall::review(std::move(list), {}).enforceable;
    return NetworkFirewall::review(NetworkFirewall::mergedPolicies(std::move(store)).policies, {})
        .enforceable;
}

TEST(EnforcedTest, AgreesWithTheHelper) {
    test::RandomPolicies random(1);
    for (int i = 0; i < 500; ++i) {
        const auto policies = random.networks(12);

        const auto list = enforcedList(policies, {});

        std::vector<FirewallNetworkPolicy> enforced;
        for (const std::size_t place : list.places) {
            enforced.push_back(list.networks.at(place).policy);
        }
        EXPECT_EQ(enforced, enforcedByTheHelper(policies));
    }
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
