// SPDX-License-Identifier: MIT

#include "firewall/analysis/Lint.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/FirewallRule.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::FirewallAnalysis {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;
using NetworkFirewall::HostAddress;
using Action = FirewallRule::Action;
using Proto = FirewallRule::Proto;
using test::rule;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// Lab, where everything passes but for the rules.
FirewallNetworkPolicy labWith(std::vector<FirewallRule> rules = {}) {
    FirewallNetworkPolicy made;
    made.name = "Lab";
    made.subnetCIDR = "192.168.64.0/24";
    made.gatewayIPv4 = "192.168.64.1";
    made.dnsProxyEnabled = true;
    made.policy.enabled = true;
    made.policy.rules = std::move(rules);
    return made;
}

/// "warning [0] rule 1 ports (code): message", but no notes about IPv6.
std::vector<std::string> found(
    std::vector<FirewallNetworkPolicy> networks, const std::vector<HostAddress>& hosts = {}) {
    std::vector<std::string> texts;
    for (const Finding& finding : lint(enforcedList(std::move(networks), hosts))) {
        if (std::string(finding.code) == "ipv6") {
            continue;
        }
        std::string text =
            std::string(rawValue(finding.severity)) + " [" + std::to_string(finding.network) + "]";
        text += finding.ruleNumber == 0 ? "" : " rule " + std::to_string(finding.ruleNumber);
        text += *finding.member == '\0' ? "" : std::string(" ") + finding.member;
        texts.push_back(text + " (" + finding.code + "): " + finding.message);
    }
    return texts;
}

TEST(LintTest, FindsNothingWhereThereIsNothing) {
    EXPECT_THAT(found({}), IsEmpty());
    EXPECT_THAT(found({labWith()}), IsEmpty());
    EXPECT_THAT(found({labWith({rule(Action::deny, Proto::any, "10.0.0.0/8")})}), IsEmpty());
    EXPECT_THAT(
        found({labWith({rule(Action::deny, Proto::tcp, "192.168.64.1", "22")})}), IsEmpty());
}

TEST(LintTest, SaysWhyANetworkIsNotEnforced) {
    auto off = labWith();
    off.policy.enabled = false;
    auto home = labWith();
    home.subnetCIDR = "192.168.1.0/24";
    auto second = labWith();
    second.subnetCIDR = "192.168.64.7/24";

    EXPECT_THAT(
        found(
            {labWith(), off, home, second},
            {{.interface = "en0", .bytes = {192, 168, 1, 7}, .prefixLength = 24}}),
        ElementsAre(
            "note [1] policy (off): Its firewall is off: nothing is enforced.",
            "error [2] subnetCIDR (refused): It is refused: 192.168.1.0/24 overlaps en0 "
            "(192.168.1.7), one of this Mac's own networks; rules there would cut the Mac off from "
            "it.",
            "error [3] subnetCIDR (claimed): It is left out: \"Lab\" has the same subnet and comes "
            "first."));
}

TEST(LintTest, FindsNetworksThatOverlap) {
    auto large = labWith();
    large.subnetCIDR = "192.168.64.0/20";

    EXPECT_THAT(
        found({large, labWith()}),
        ElementsAre("error [1] subnetCIDR (covered): None of its rules is ever asked: \"Lab\" has "
                    "all of 192.168.64.0/24 and comes first."));
    EXPECT_THAT(
        found({labWith(), large}),
        ElementsAre("warning [1] subnetCIDR (covered): Of its addresses, 192.168.64.0/24 are "
                    "\"Lab\"'s, which comes first."));
}

TEST(LintTest, LooksAtSubnetAndGateway) {
    auto hostBits = labWith();
    hostBits.subnetCIDR = "192.168.64.9/24";
    EXPECT_THAT(
        found({hostBits}),
        ElementsAre(
            "note [0] subnetCIDR (host-bits): 192.168.64.9/24 means all of 192.168.64.0/24."));

    auto missing = labWith();
    missing.gatewayIPv4.reset();
    EXPECT_THAT(
        found({missing}),
        ElementsAre("warning [0] dnsProxyEnabled (gateway-missing): The DNS proxy is on, but there "
                    "is no gateway. No line passes DNS to the proxy."));
    missing.dnsProxyEnabled = false;
    EXPECT_THAT(found({missing}), IsEmpty());

    for (const char* gateway : {"10.0.0.1", "192.168.64.0", "nobody"}) {
        auto outside = labWith();
        outside.gatewayIPv4 = gateway;
        EXPECT_THAT(
            found({outside}),
            ElementsAre(
                "warning [0] gatewayIPv4 (gateway-dropped): The gateway \"" + std::string(gateway) +
                "\" is dropped: it isn't the address of a host in 192.168.64.0/24. No line passes "
                "DNS to the proxy."));
    }
}

TEST(LintTest, FindsRulesThatAreNotWritten) {
    auto disabled = rule(Action::deny, Proto::any, "nowhere");
    disabled.enabled = false;

    EXPECT_THAT(
        found({labWith(
            {disabled,
             rule(Action::deny, Proto::any, "10.0.0/8"),
             rule(Action::deny, Proto::tcp, "any", "0"),
             rule(Action::deny, Proto::icmp, "any", "x")})}),
        ElementsAre(
            "note [0] rule 1 enabled (disabled): It is off: nothing is enforced.",
            "error [0] rule 2 remoteCIDR (faulty): It is left out: \"10.0.0/8\" isn't an IPv4 "
            "address or CIDR (such as 10.0.0.0/8).",
            "error [0] rule 3 ports (faulty): It is left out: \"0\" isn't a port or port range "
            "(1–65535, such as 443 or 8000-8080).",
            "warning [0] rule 4 ports (ports-ignored): icmp has no ports: \"x\" is ignored."));
}

TEST(LintTest, FindsRulesThatDoNothing) {
    EXPECT_THAT(
        found({labWith(
            {rule(Action::deny, Proto::any, "10.0.0.7/8"),
             rule(Action::allow, Proto::tcp, "10.1.0.0/16", "22"),
             rule(Action::allow, Proto::tcp, "11.0.0.0/8"),
             rule(Action::deny, Proto::udp, "192.168.64.1", "53")})}),
        ElementsAre(
            "note [0] rule 1 remoteCIDR (host-bits): 10.0.0.7/8 means all of 10.0.0.0/8.",
            "warning [0] rule 2 (shadowed): It never decides: rule 1 (deny 10.0.0.7/8) comes first "
            "and takes all of its packets.",
            "warning [0] rule 3 (redundant): It changes nothing: without it, the default for "
            "outbound traffic gives the same verdict.",
            "warning [0] rule 4 (shadowed): It never decides: the DNS lines come first and take "
            "all "
            "of its packets."));
    EXPECT_THAT(
        found({labWith(
            {rule(Action::deny, Proto::any, "10.0.0.0/9"),
             rule(Action::deny, Proto::any, "10.128.0.0/9"),
             rule(Action::allow, Proto::tcp, "10.0.0.0/8")})}),
        ElementsAre("warning [0] rule 3 (shadowed): It never decides: rule 1 (deny 10.0.0.0/9) and "
                    "rule 2 (deny 10.128.0.0/9) come first and take all of its packets."));
}

TEST(LintTest, FindsWhatDhcpAndDnsOvertake) {
    EXPECT_THAT(
        found({labWith({rule(Action::deny, Proto::any, "any", "53")})}),
        ElementsAre("warning [0] rule 1 ports (overtaken): DNS to 192.168.64.1 passes in spite of "
                    "it: its lines come first."));
    EXPECT_THAT(
        found({labWith({rule(Action::deny, Proto::udp, "10.0.0.0/8", "60-70")})}),
        ElementsAre("warning [0] rule 1 ports (overtaken): DHCP passes in spite of it: its lines "
                    "come first."));
    EXPECT_THAT(
        found({labWith({rule(Action::deny, Proto::any, "any")})}),
        ElementsAre(
            "note [0] rule 1 (overtaken): DHCP passes in spite of it: its lines come first.",
            "note [0] rule 1 (overtaken): DNS to 192.168.64.1 passes in spite of it: its lines "
            "come first."));
    auto inbound = rule(Action::deny, Proto::udp, "any", "67");
    inbound.direction = FirewallRule::Direction::inbound;
    EXPECT_THAT(found({labWith({inbound})}), IsEmpty());
}

TEST(LintTest, FindsRulesAboutTheOwnSubnet) {
    const auto insider = rule(Action::deny, Proto::tcp, "192.168.64.128/26", "22");
    const auto about = [&](const char* remote) {
        auto changed = insider;
        changed.remoteCIDR = remote;
        return found({labWith({changed})});
    };

    EXPECT_THAT(
        about("192.168.64.128/26"),
        ElementsAre("warning [0] rule 1 remoteCIDR (own-subnet): It never applies: "
                    "192.168.64.128/26 is in the network's own subnet, and two machines of one "
                    "network are never filtered."));
    EXPECT_THAT(
        about("192.168.64.0/24"),
        Contains("warning [0] rule 1 remoteCIDR (own-subnet): It is about the host only: two "
                 "machines of one network are never filtered."));
    // The host hears broadcasts; a wider remote is about others, too.
    EXPECT_THAT(about("192.168.64.192/26"), IsEmpty());
    EXPECT_THAT(about("192.168.64.0/23"), IsEmpty());
    // Nobody knows the host's address.
    auto unknown = labWith({insider});
    unknown.gatewayIPv4.reset();
    unknown.dnsProxyEnabled = false;
    EXPECT_THAT(found({unknown}), IsEmpty());
}

TEST(LintTest, SaysWhichNetworksMayReachEachOther) {
    const auto made = [](const char* name, int number, Action inbound) {
        auto network = labWith();
        network.name = name;
        network.subnetCIDR = "192.168." + std::to_string(number) + ".0/24";
        network.gatewayIPv4 = "192.168." + std::to_string(number) + ".1";
        network.policy.defaultInbound = inbound;
        return network;
    };
    const auto note = [](const char* place, const std::string& names) {
        return "note [" + std::string(place) + "] policy (reachable): Machines of " + names +
               " may open connections to its machines: the rules of both sides pass some. They do "
               "so even where macOS itself keeps networks apart, whose rules come later.";
    };

    const auto open = made("Lab", 64, Action::allow);
    auto closed = made("Office", 65, Action::deny);
    EXPECT_THAT(found({open, closed}), ElementsAre(note("0", "\"Office\"")));
    closed.policy.rules = {rule(Action::deny, Proto::any, "192.168.64.0/24")};
    EXPECT_THAT(found({open, closed}), IsEmpty());
    std::vector<FirewallNetworkPolicy> many{open};
    for (int i = 0; i < 6; ++i) {
        many.push_back(made("Office", 70 + i, Action::deny));
    }
    EXPECT_THAT(
        found(many),
        ElementsAre(note("0", "\"Office\", \"Office\", \"Office\", \"Office\" and others")));
}

TEST(LintTest, SaysOnceThatIPv6MeetsNoRule) {
    auto deny = labWith();
    deny.policy.defaultInbound = Action::deny;
    deny.policy.defaultOutbound = Action::deny;
    auto second = deny;
    second.subnetCIDR = "192.168.65.0/24";
    second.gatewayIPv4 = "192.168.65.1";

    EXPECT_THAT(lint(enforcedList({labWith()}, {})), IsEmpty());
    auto third = labWith();
    third.subnetCIDR = "192.168.66.0/24";
    third.gatewayIPv4 = "192.168.66.1";
    const auto findings = lint(enforcedList({third, deny, second}, {}));
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(std::string(findings[0].code), "ipv6");
    EXPECT_EQ(findings[0].severity, Severity::note);
    EXPECT_EQ(findings[0].network, 1U);
}

TEST(LintTest, ReportsOfAnyPolicyOnlyWhatItCanName) {
    test::RandomPolicies random(9);
    for (int i = 0; i < 300; ++i) {
        const auto list = enforcedList(random.networks(8), {});
        const auto findings = lint(list);

        EXPECT_TRUE(std::ranges::is_sorted(findings, {}, [](const Finding& finding) {
            return std::pair(finding.network, finding.ruleNumber);
        }));
        for (const Finding& finding : findings) {
            EXPECT_THAT(findingCodes, Contains(std::string(finding.code)));
            ASSERT_LT(finding.network, list.networks.size());
            EXPECT_LE(
                finding.ruleNumber, list.networks[finding.network].policy.policy.rules.size());
        }
    }
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
