// SPDX-License-Identifier: MIT

#include "helperctl/commands/Init.h"

#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/Review.h"
#include "helperctl/commands/Validate.h"
#include "tests/support/JsonSchema.h"

namespace tarnvale::helperctl {
namespace {

using NetworkFirewall::FirewallRule;
using NetworkFirewall::HostAddress;

std::vector<HostAddress> hosts() {
    return {
        {.interface = "lo0", .bytes = {127, 0, 0, 1}, .prefixLength = 8},
        {.interface = "en0", .bytes = {192, 168, 1, 5}, .prefixLength = 23},
        {.interface = "en0", .bytes = std::vector<std::uint8_t>(16, 1), .prefixLength = 64},
        {.interface = "utun3", .bytes = {10, 8, 0, 2}, .prefixLength = 32},
        {.interface = "bridge100", .bytes = {192, 168, 64, 1}, .prefixLength = 24},
        {.interface = "bridge101", .bytes = {192, 168, 65, 17}, .prefixLength = 28},
        {.interface = "bridge102", .bytes = {172, 16, 0, 1}, .prefixLength = 24},
        {.interface = "bridge103", .bytes = {192, 168, 64, 2}, .prefixLength = 24}};
}

std::string policy(const std::vector<HostAddress>& addresses) {
    std::uint8_t last = 0;
    return startingPolicy(addresses, [&last] {
        support::Uuid uuid;
        uuid.bytes[15] = ++last;
        return uuid;
    });
}

TEST(InitTest, PrintsAPolicyThatIsEnforcedWhole) {
    const auto made = policy(hosts());

    const auto validation = validated(made, hosts());
    EXPECT_TRUE(validation.problems.empty()) << validation.problems.front().problem;
    const auto networks = NetworkFirewall::decodePolicies(made);
    ASSERT_EQ(networks.size(), 2U);
    EXPECT_EQ(networks[0].name, "Network of bridge100");
    EXPECT_EQ(networks[0].subnetCIDR, "192.168.64.0/24");
    EXPECT_EQ(networks[0].gatewayIPv4, "192.168.64.1");
    EXPECT_EQ(networks[1].subnetCIDR, "192.168.65.16/28");
    EXPECT_NE(networks[0].networkID, networks[1].networkID);
    EXPECT_EQ(networks[0].policy.defaultInbound, FirewallRule::Action::deny);
    const auto& rules = networks[0].policy.rules;
    ASSERT_EQ(rules.size(), 3U);
    EXPECT_FALSE(rules[0].enabled);
    EXPECT_EQ(rules[1].remoteCIDR, "10.8.0.2/32");
    EXPECT_EQ(rules[2].remoteCIDR, "192.168.0.0/23");
    EXPECT_EQ(rules[2].action, FirewallRule::Action::deny);
    EXPECT_EQ(rules[2].direction, FirewallRule::Direction::outbound);
    const auto review = NetworkFirewall::review(networks, hosts());
    EXPECT_TRUE(review.refused.empty());
    EXPECT_TRUE(review.skippedRules.empty());
}

TEST(InitTest, ExplainsItself) {
    EXPECT_THAT(policy(hosts()), testing::HasSubstr("\"comment\": \"The first rule that matches"));
    EXPECT_EQ(
        policy({hosts()[4]}),
        "[\n"
        "  {\n"
        "    \"comment\": \"The name is for people, the networkID for Tarnvale.\",\n"
        "    \"networkID\": \"00000000-0000-0000-0000-000000000001\",\n"
        "    \"name\": \"Network of bridge100\",\n"
        "    \"subnetCIDR\": \"192.168.64.0/24\",\n"
        "    \"gatewayIPv4\": \"192.168.64.1\",\n"
        "    \"dnsProxyEnabled\": true,\n"
        "    \"policy\": {\n"
        "      \"comment\": \"The first rule that matches decides, else the defaults: inbound is "
        "towards the machines.\",\n"
        "      \"enabled\": true,\n"
        "      \"defaultInbound\": \"deny\",\n"
        "      \"defaultOutbound\": \"allow\",\n"
        "      \"rules\": [\n"
        "        {\n"
        "          \"comment\": \"Set enabled to true to let ssh in from anywhere.\",\n"
        "          \"id\": \"00000000-0000-0000-0000-000000000002\",\n"
        "          \"enabled\": false,\n"
        "          \"direction\": \"inbound\",\n"
        "          \"action\": \"allow\",\n"
        "          \"proto\": \"tcp\",\n"
        "          \"remoteCIDR\": \"any\",\n"
        "          \"ports\": \"22\"\n"
        "        }\n"
        "      ]\n"
        "    }\n"
        "  }\n"
        "]");
}

TEST(InitTest, HasNothingForAMachineWithoutVirtualNetworks) {
    EXPECT_EQ(policy({}), "");
    EXPECT_EQ(policy({hosts()[0], hosts()[1]}), "");
}

}  // namespace
}  // namespace tarnvale::helperctl
