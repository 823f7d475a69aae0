// SPDX-License-Identifier: MIT

#include "helperctl/StatusPage.h"

#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helperctl/Answer.h"
#include "helperctl/Console.h"
#include "support/JsonWriter.h"
#include "support/Text.h"
#include "tests/support/FirewallRule.h"
#include "tests/support/JsonSchema.h"

namespace tarnvale::helperctl {
namespace {

using NetworkFirewall::FirewallRule;
using NetworkFirewall::PolicyStore;
using testing::ElementsAre;

const char* const ruleset =
    "# Tarnvale network firewall — generated 2025-03-14T09:26:53Z.\n"
    "# --- Lab (of ada) (192.168.64.0/24) ---\n";

std::string counters(int packets, int states) {
    return "\n  [ Evaluations: 90        Packets: " + std::to_string(packets) +
           "       Bytes: " + std::to_string(10 * packets) +
           "        States: " + std::to_string(states) + "     ]\n  [ Inserted: uid 0 pid 68 ]\n";
}

std::string report() {
    return "== pf status ==\n"
           "Status: Enabled for 0 days 00:10:11           Debug: Urgent\n"
           "State Table                          Total             Rate\n\n"
           "== com.apple/900.tarnvale.firewall ==\n"
           "pass in quick inet proto udp from 192.168.64.0/24 port = 68 to any port = 67 keep "
           "state" +
           counters(1, 0) +
           "pass out quick inet proto udp from any port = 67 to 192.168.64.0/24 port = 68 keep "
           "state" +
           counters(0, 0) +
           "pass in quick inet proto udp from 192.168.64.0/24 to 192.168.64.1 port = 53 keep "
           "state" +
           counters(5, 2) +
           "pass in quick inet proto tcp from 192.168.64.0/24 to 192.168.64.1 port = 53 flags S/SA "
           "keep state" +
           counters(2, 0) +
           "pass out quick inet proto tcp from any to 192.168.64.0/24 port = 80 flags S/SA keep "
           "state" +
           counters(3, 1) +
           "pass out quick inet proto udp from any to 192.168.64.0/24 port = 80 keep state" +
           counters(4, 0) + "block drop in quick inet from 192.168.64.0/24 to 10.0.0.0/8" +
           counters(14, 0) +
           "pass in quick inet from 192.168.64.0/24 to any flags S/SA keep state" +
           counters(1200, 12) + "block drop out quick inet from any to 192.168.64.0/24" +
           counters(0, 0);
}

/// Lab is root's, stored after somebody else's network with the same subnet.
PolicyStore store() {
    NetworkFirewall::FirewallNetworkPolicy lab;
    lab.name = "Lab\033[2J";
    lab.subnetCIDR = "192.168.64.1/24";
    lab.gatewayIPv4 = "192.168.64.1";
    lab.dnsProxyEnabled = true;
    lab.policy.enabled = true;
    lab.policy.defaultInbound = FirewallRule::Action::deny;
    using enum FirewallRule::Action;
    using enum FirewallRule::Direction;
    using enum FirewallRule::Proto;
    lab.policy.rules = {
        test::rule(allow, any, "any", "22", inbound),
        test::rule(allow, any, "any", "80", inbound),
        test::rule(deny, any, "10.0.0.7/8")};
    lab.policy.rules.front().enabled = false;
    PolicyStore store;
    store.owners["0"] = {.policies = {lab}, .appliedAt = {20}};
    lab.name = "Other";
    store.owners["4294967000"] = {.policies = {lab}, .appliedAt = {10}};
    return store;
}

std::string page(const FirewallStatus& status, const FirewallStatus* before = nullptr) {
    std::ostringstream output;
    printText(status, output, before, 2);
    return output.str();
}

TEST(StatusPageTest, SaysWhatEachRuleHasDecided) {
    const auto status = firewallStatus(report(), ruleset, store());

    ASSERT_TRUE(status);
    EXPECT_EQ(
        page(*status),
        "pf is on. The helper enforces 1 network.\n"
        "The counters start at zero whenever the rules are loaded: at each apply, at each\n"
        "removal, and at each start of the helper, which ends after two idle minutes.\n"
        "\n"
        "Lab\\u001b[2J, 192.168.64.0/24, of root (uid 0)\n"
        "  from the machines\n"
        "    DHCP: 1 packet\n"
        "    DNS at the gateway: 7 packets, 2 states\n"
        "    rule 3, deny 10.0.0.7/8: 14 packets\n"
        "    everything else, allow: 1200 packets, 12 states\n"
        "  to the machines\n"
        "    DHCP: 0 packets\n"
        "    rule 2, allow tcp and udp 80: 7 packets, 1 state\n"
        "    everything else, deny: 0 packets\n");
}

TEST(StatusPageTest, SaysWhatItCanWithoutTheStore) {
    const auto status = firewallStatus(report(), ruleset, std::nullopt);

    ASSERT_TRUE(status);
    EXPECT_THAT(
        page(*status),
        testing::EndsWith("\nLab (of ada), 192.168.64.0/24\n"
                          "  from the machines\n"
                          "    DHCP: 1 packet\n"
                          "    allow udp 53 to 192.168.64.1/32: 5 packets, 2 states\n"
                          "    allow tcp 53 to 192.168.64.1/32: 2 packets\n"
                          "    deny 10.0.0.0/8: 14 packets\n"
                          "    everything else, allow: 1200 packets, 12 states\n"
                          "  to the machines\n"
                          "    DHCP: 0 packets\n"
                          "    allow tcp 80: 3 packets, 1 state\n"
                          "    allow udp 80: 4 packets\n"
                          "    everything else, deny: 0 packets\n"));
    EXPECT_EQ(status->networks.at(0).owner, std::nullopt);
    EXPECT_THAT(
        page(firewallStatus(report(), "", std::nullopt).value()),
        testing::HasSubstr("\n192.168.64.0/24\n"));
}

TEST(StatusPageTest, SaysHowMuchHasPassedSince) {
    const auto before = firewallStatus(report(), ruleset, store()).value();
    auto after = before;
    after.networks.at(0).lines.at(0).packets += 9;
    after.networks.at(0).lines.at(2).packets = 1;  // loaded anew

    EXPECT_THAT(page(after, &before), testing::HasSubstr("    DHCP: 10 packets, 5/s\n"));
    EXPECT_THAT(
        page(after, &before),
        testing::HasSubstr("    DNS at the gateway: 1 packet, 0/s, 2 states\n"));
}

TEST(StatusPageTest, SaysWhetherPfIsOn) {
    const std::string end = "\n\n== com.apple/900.tarnvale.firewall ==\n";
    const std::string empty = "(anchor is empty — nothing enforced)";
    EXPECT_EQ(
        page(firewallStatus("== pf status ==\nStatus: Disabled" + end + empty, "", {}).value()),
        "pf is off: nothing is enforced. The helper enforces 0 networks.\n");
    auto off = firewallStatus(report(), ruleset, store()).value();
    off.enabled = false;
    EXPECT_THAT(
        page(off),
        testing::StartsWith("pf is off: nothing is enforced. Rules are loaded for 1 network.\n"));
    const auto unknown =
        firewallStatus("== pf status ==\n" + end + "pfctl: Permission denied", "", {}).value();
    EXPECT_EQ(page(unknown), "It is unknown whether pf is on. The helper enforces 0 networks.\n");
    EXPECT_THAT(unknown.others, ElementsAre("pfctl: Permission denied"));
    EXPECT_EQ(firewallStatus("the result", "", {}), std::nullopt);
}

TEST(StatusPageTest, FitsATerminal) {
    const auto text = page(firewallStatus(report(), ruleset, store()).value());
    for (const auto line : support::split(text, '\n')) {
        EXPECT_LE(columnsOf(line), pageWidth) << line;
    }
}

TEST(StatusPageTest, HasItsSchema) {
    Answer answer;
    answer.report = report();
    for (const auto& known : {std::optional(store()), std::optional<PolicyStore>()}) {
        answer.firewall = firewallStatus(report(), ruleset, known);
        EXPECT_EQ(
            test::judgedBySchema(
                "helperctl", support::encodeJson(answer, support::JsonForm::compact)),
            "yes");
    }
}

}  // namespace
}  // namespace tarnvale::helperctl
