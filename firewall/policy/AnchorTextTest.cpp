// SPDX-License-Identifier: MIT

#include "firewall/policy/AnchorText.h"

#include <algorithm>
#include <chrono>
#include <cstddef>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/Addresses.h"
#include "firewall/policy/Review.h"
#include "support/Text.h"
#include "tests/support/FirewallRule.h"
#include "tests/support/RandomPolicies.h"
#include "tests/support/RulesetGrammar.h"

namespace tarnvale::NetworkFirewall {
namespace {

using test::rule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Action = FirewallRule::Action;
using Direction = FirewallRule::Direction;
using Proto = FirewallRule::Proto;
using Policies = std::vector<FirewallNetworkPolicy>;

constexpr std::string_view subnet = "192.168.64.0/24";
constexpr std::chrono::system_clock::time_point generatedAt{std::chrono::seconds(1741944413)};

/// An enabled network with everything allowed and no DNS proxy.
FirewallNetworkPolicy enforcedNetwork(
    const std::string& name = "Lab", const std::string& subnetCIDR = "192.168.64.0/24") {
    FirewallNetworkPolicy made;
    made.name = name;
    made.subnetCIDR = subnetCIDR;
    made.policy.enabled = true;
    return made;
}

/// The text without its first line, which has the time.
std::string withoutTime(const std::string& text) {
    return text.substr(text.find('\n') + 1);
}

constexpr std::string_view heading =
    "# Loaded into pf anchor \"com.apple/900.tarnvale.firewall\" by TarnvaleAdminHelper. "
    "Do not edit.\n"
    "\n";

TEST(AnchorTextTest, WritesTheWholeRuleset) {
    FirewallNetworkPolicy lab = enforcedNetwork();
    lab.gatewayIPv4 = "192.168.64.1";
    lab.dnsProxyEnabled = true;
    lab.policy.defaultInbound = Action::deny;
    lab.policy.rules = {
        rule(Action::allow, Proto::tcp, "any", "22", Direction::inbound),
        rule(Action::deny, Proto::any, "10.0.0.0/8")};

    EXPECT_EQ(
        anchorText(std::vector{lab}, generatedAt),
        "# Tarnvale network firewall — generated 2025-03-14T09:26:53Z.\n"
        "# Loaded into pf anchor \"com.apple/900.tarnvale.firewall\" by TarnvaleAdminHelper. Do "
        "not edit.\n"
        "\n"
        "# --- Lab (192.168.64.0/24) ---\n"
        "pass in quick proto udp from 192.168.64.0/24 port 68 to any port 67 keep state\n"
        "pass out quick proto udp from any port 67 to 192.168.64.0/24 port 68\n"
        "pass in quick proto udp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state\n"
        "pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state\n"
        "pass out quick proto tcp from any to 192.168.64.0/24 port 22 keep state\n"
        "block drop in quick from 192.168.64.0/24 to 10.0.0.0/8\n"
        "pass in quick from 192.168.64.0/24 to any keep state\n"
        "block drop out quick from any to 192.168.64.0/24\n"
        "\n");
}

TEST(AnchorTextTest, WritesNetworksInTheirOrder) {
    FirewallNetworkPolicy open = enforcedNetwork("Open", " 192.168.65.9/24 ");
    FirewallNetworkPolicy shut = enforcedNetwork("Shut", "192.168.64.16/28");
    shut.policy.defaultOutbound = Action::deny;
    shut.policy.defaultInbound = Action::deny;

    EXPECT_EQ(
        withoutTime(anchorText(std::vector{open, shut}, generatedAt)),
        std::string(heading) +
            "# --- Open (192.168.65.0/24) ---\n"
            "pass in quick proto udp from 192.168.65.0/24 port 68 to any port 67 keep state\n"
            "pass out quick proto udp from any port 67 to 192.168.65.0/24 port 68\n"
            "pass in quick from 192.168.65.0/24 to any keep state\n"
            "pass out quick from any to 192.168.65.0/24 keep state\n"
            "\n"
            "# --- Shut (192.168.64.16/28) ---\n"
            "pass in quick proto udp from 192.168.64.16/28 port 68 to any port 67 keep state\n"
            "pass out quick proto udp from any port 67 to 192.168.64.16/28 port 68\n"
            "block drop in quick from 192.168.64.16/28 to any\n"
            "block drop out quick from any to 192.168.64.16/28\n"
            "\n");
}

TEST(AnchorTextTest, WritesTheHeadingAloneForNoNetworks) {
    EXPECT_EQ(withoutTime(anchorText({}, generatedAt)), heading);
}

TEST(AnchorTextTest, PassesOverNetworksThatAreOffOrHaveNoSubnet) {
    FirewallNetworkPolicy off = enforcedNetwork();
    off.policy.enabled = false;

    EXPECT_EQ(
        withoutTime(anchorText(
            std::vector{
                off,
                enforcedNetwork("Office", "10.0.0.0/24"),
                enforcedNetwork("", ""),
                enforcedNetwork("Wide", "192.168.0.0/16")},
            generatedAt)),
        heading);
}

TEST(AnchorTextTest, DatesTheTextInUtcToTheSecond) {
    EXPECT_THAT(
        anchorText({}, generatedAt + std::chrono::milliseconds(999)),
        StartsWith("# Tarnvale network firewall — generated 2025-03-14T09:26:53Z.\n"));
}

TEST(AnchorTextTest, DependsOnTheTimeInTheFirstLineOnly) {
    const Policies policies = test::RandomPolicies(3).networks(40);

    EXPECT_EQ(
        withoutTime(anchorText(policies, generatedAt)),
        withoutTime(anchorText(policies, generatedAt + std::chrono::hours(1))));
}

TEST(AnchorTextTest, PutsANetworksNameOnOneLine) {
    const auto commentOf = [](const std::string& name) {
        const std::string text =
            withoutTime(anchorText(std::vector{enforcedNetwork(name)}, generatedAt))
                .substr(heading.size());
        return text.substr(0, text.find("pass in quick"));
    };
    EXPECT_EQ(commentOf("Lab\nTest"), "# --- Lab Test (192.168.64.0/24) ---\n");
    EXPECT_EQ(commentOf("Lab\r\nTest"), "# --- Lab  Test (192.168.64.0/24) ---\n");
    EXPECT_EQ(
        commentOf("\n1\v2\f3\r4\u00855\u20286\u2029"),
        "# ---  1 2 3 4 5 6  (192.168.64.0/24) ---\n");
    EXPECT_EQ(commentOf(""), "# ---  (192.168.64.0/24) ---\n");
    EXPECT_EQ(commentOf("Büro \"A\" 😀 \\"), "# --- Büro \"A\" 😀 \\ (192.168.64.0/24) ---\n");
    EXPECT_EQ(
        commentOf("x\nblock drop in quick"), "# --- x block drop in quick (192.168.64.0/24) ---\n");
}

TEST(AnchorTextTest, PassesDnsOnlyToAGatewayThatRunsTheProxy) {
    const auto text = [](bool dnsProxyEnabled, const std::optional<std::string>& gateway) {
        FirewallNetworkPolicy lab = enforcedNetwork();
        lab.dnsProxyEnabled = dnsProxyEnabled;
        lab.gatewayIPv4 = gateway;
        return anchorText(std::vector{lab}, generatedAt);
    };
    const auto dns = HasSubstr("port 53");
    const auto dhcp = HasSubstr(
        "pass in quick proto udp from 192.168.64.0/24 port 68 to any port 67 keep state\n"
        "pass out quick proto udp from any port 67 to 192.168.64.0/24 port 68\n");

    EXPECT_THAT(text(true, "192.168.64.1"), dns);
    EXPECT_THAT(text(true, "10.0.0.1"), HasSubstr("to 10.0.0.1/32 port 53 keep state\n"));
    EXPECT_THAT(text(false, "192.168.64.1"), Not(dns));
    EXPECT_THAT(text(true, std::nullopt), Not(dns));
    for (const char* const gateway : {"", "gateway", " 192.168.64.1", "192.168.64.1/24", "::1"}) {
        EXPECT_THAT(text(true, gateway), Not(dns)) << gateway;
        EXPECT_THAT(text(true, gateway), dhcp) << gateway;
    }
}

TEST(AnchorTextTest, KeepsTheUsersOrderOfRules) {
    FirewallNetworkPolicy lab = enforcedNetwork();
    lab.policy.rules = {
        rule(Action::allow, Proto::icmp, "any"),
        rule(Action::deny, Proto::any, "10.0.0.0/8", "", Direction::inbound),
        rule(Action::deny, Proto::icmp, "any"),
        rule(Action::allow, Proto::any, "10.0.0.0/8", "", Direction::inbound)};

    EXPECT_THAT(
        anchorText(std::vector{lab}, generatedAt),
        HasSubstr("port 68\n"
                  "pass in quick proto icmp from 192.168.64.0/24 to any keep state\n"
                  "block drop out quick from 10.0.0.0/8 to 192.168.64.0/24\n"
                  "block drop in quick proto icmp from 192.168.64.0/24 to any\n"
                  "pass out quick from 10.0.0.0/8 to 192.168.64.0/24 keep state\n"
                  "pass in quick from 192.168.64.0/24 to any keep state\n"));
}

TEST(AnchorTextTest, LeavesOutDisabledAndFaultyRules) {
    FirewallNetworkPolicy lab = enforcedNetwork();
    lab.policy.rules = {
        rule(Action::allow, Proto::tcp, "any", "22", Direction::inbound),
        rule(Action::allow, Proto::tcp, "10.0.0/8", "23", Direction::inbound),
        rule(Action::allow, Proto::tcp, "any", "99999", Direction::inbound),
        rule(Action::allow, Proto::tcp, "any", "24", Direction::inbound),
        rule(Action::allow, Proto::tcp, "any", "25", Direction::inbound)};
    lab.policy.rules[3].enabled = false;

    EXPECT_THAT(
        anchorText(std::vector{lab}, generatedAt),
        HasSubstr("port 68\n"
                  "pass out quick proto tcp from any to 192.168.64.0/24 port 22 keep state\n"
                  "pass out quick proto tcp from any to 192.168.64.0/24 port 25 keep state\n"
                  "pass in quick from 192.168.64.0/24 to any keep state\n"));
}

TEST(AnchorTextTest, WritesEachKindOfRule) {
    struct Case {
        FirewallRule rule;
        std::vector<std::string> lines;
    };
    using enum FirewallRule::Direction;
    using enum FirewallRule::Action;
    const std::vector<Case> cases = {
        {rule(allow, Proto::tcp, "any", "22", inbound),
         {"pass out quick proto tcp from any to 192.168.64.0/24 port 22 keep state"}},
        {rule(deny, Proto::any, "10.0.0.0/8", "", inbound),
         {"block drop out quick from 10.0.0.0/8 to 192.168.64.0/24"}},
        {rule(allow, Proto::any, "any", "8000-8080"),
         {"pass in quick proto tcp from 192.168.64.0/24 to any port 8000:8080 keep state",
          "pass in quick proto udp from 192.168.64.0/24 to any port 8000:8080 keep state"}},
        {rule(deny, Proto::udp, "1.1.1.1", "53"),
         {"block drop in quick proto udp from 192.168.64.0/24 to 1.1.1.1/32 port 53"}},
        {rule(allow, Proto::icmp, "any", "80"),
         {"pass in quick proto icmp from 192.168.64.0/24 to any keep state"}},
        {rule(deny, Proto::any, "", "443", inbound),
         {"block drop out quick proto tcp from any to 192.168.64.0/24 port 443",
          "block drop out quick proto udp from any to 192.168.64.0/24 port 443"}},
        {rule(allow, Proto::any, "any"), {"pass in quick from 192.168.64.0/24 to any keep state"}},
        {rule(deny, Proto::any, "any", " \t"), {"block drop in quick from 192.168.64.0/24 to any"}},
        {rule(allow, Proto::tcp, "10.0.0.7/8", "", inbound),
         {"pass out quick proto tcp from 10.0.0.7/8 to 192.168.64.0/24 keep state"}},
        {rule(allow, Proto::udp, "10.0.0.7", "1-65535", inbound),
         {"pass out quick proto udp from 10.0.0.7/32 to 192.168.64.0/24 port 1:65535 keep state"}},
        {rule(deny, Proto::icmp, "10.0.0.7", "abc", inbound),
         {"block drop out quick proto icmp from 10.0.0.7/32 to 192.168.64.0/24"}},
        {rule(allow, Proto::tcp, "10.0.0/8", "22", inbound), {}},
        {rule(allow, Proto::any, "any", "99999", inbound), {}},
        {rule(allow, Proto::icmp, "nowhere", "", inbound), {}},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(ruleLines(each.rule, subnet), each.lines);
    }
}

TEST(AnchorTextTest, WritesARulesLinesWhetherOrNotItIsEnabled) {
    FirewallRule off = rule(Action::deny, Proto::any, "any", "", Direction::inbound);
    off.enabled = false;

    EXPECT_THAT(
        ruleLines(off, subnet), ElementsAre("block drop out quick from any to 192.168.64.0/24"));
}

/// The lines of a rule, written in another way than the code writes them.
std::vector<std::string> slowRuleLines(const FirewallRule& rule) {
    const auto remote = normalizedRemote(rule.remoteCIDR);
    const bool hasPorts = rule.proto != Proto::icmp && !support::trimWhitespace(rule.ports).empty();
    const auto ports = hasPorts ? normalizedPorts(rule.ports) : std::optional<std::string>("");
    if (!remote || !ports) {
        return {};
    }
    std::vector<std::string> protocols = {rawValue(rule.proto)};
    if (rule.proto == Proto::any) {
        protocols =
            hasPorts ? std::vector<std::string>{"tcp", "udp"} : std::vector<std::string>{""};
    }
    std::vector<std::string> lines;
    for (const std::string& protocol : protocols) {
        std::vector<std::string> words = {
            rule.action == Action::allow ? "pass" : "block drop",
            rule.direction == Direction::inbound ? "out" : "in",
            "quick"};
        if (!protocol.empty()) {
            words.insert(words.end(), {"proto", protocol});
        }
        std::vector<std::string> ends = {*remote, std::string(subnet)};
        if (rule.direction == Direction::outbound) {
            std::swap(ends[0], ends[1]);
        }
        words.insert(words.end(), {"from", ends[0], "to", ends[1]});
        if (hasPorts) {
            words.insert(words.end(), {"port", *ports});
        }
        if (rule.action == Action::allow) {
            words.insert(words.end(), {"keep", "state"});
        }
        std::string line;
        for (const std::string& word : words) {
            line += (line.empty() ? "" : " ") + word;
        }
        lines.push_back(line);
    }
    return lines;
}

TEST(AnchorTextPropertyTest, WritesRulesAsTheSlowWayDoes) {
    test::RandomPolicies random(4);
    for (int round = 0; round < 5'000; ++round) {
        const FirewallRule each = random.rule();

        ASSERT_EQ(ruleLines(each, subnet), slowRuleLines(each))
            << each.remoteCIDR << " | " << each.ports;
    }
}

TEST(AnchorTextPropertyTest, WritesNothingButCommentsAndRulesWhateverTheNamesHold) {
    test::RandomPolicies random(5);
    std::size_t rules = 0;
    for (int round = 0; round < 150; ++round) {
        const Policies policies = random.networks(12);

        const std::string text = anchorText(policies, generatedAt);

        ASSERT_TRUE(text.ends_with("\n\n"));
        std::size_t comments = 0;
        for (const std::string_view line : support::split(text, '\n')) {
            ASSERT_TRUE(test::isRulesetLine(std::string(line))) << line;
            comments += line.starts_with('#') ? 1 : 0;
            rules += test::isPfRule(std::string(line)) ? 1 : 0;
        }
        const auto written = std::ranges::count_if(policies, [](const auto& each) {
            return each.policy.enabled && canonicalSubnet(each.subnetCIDR);
        });
        ASSERT_EQ(comments, 2 + static_cast<std::size_t>(written));
    }
    EXPECT_GT(rules, 1'000U);
}

TEST(AnchorTextPropertyTest, WritesEveryLineOfEveryRule) {
    test::RandomPolicies random(6);
    for (int round = 0; round < 60; ++round) {
        const Policies policies = random.networks(12);
        std::string expected(heading);
        for (const FirewallNetworkPolicy& each : policies) {
            const auto canonical = canonicalSubnet(each.subnetCIDR);
            if (!each.policy.enabled || !canonical) {
                continue;
            }
            FirewallNetworkPolicy bare = each;
            bare.policy.rules.clear();
            const std::string frame =
                withoutTime(anchorText(std::vector{bare}, generatedAt)).substr(heading.size());
            // The two defaults and the empty line follow the rules.
            std::size_t place = frame.size() - 1;
            for (int line = 0; line < 2; ++line) {
                place = frame.rfind('\n', place - 2) + 1;
            }
            expected += frame.substr(0, place);
            for (const FirewallRule& entry : each.policy.rules) {
                for (const std::string& line : ruleLines(entry, *canonical)) {
                    expected += entry.enabled ? line + "\n" : "";
                }
            }
            expected += frame.substr(place);
        }

        ASSERT_EQ(withoutTime(anchorText(policies, generatedAt)), expected);
    }
}

TEST(AnchorTextPropertyTest, WritesWhatAReviewLetsThrough) {
    test::RandomPolicies random(8);
    for (int round = 0; round < 60; ++round) {
        Policies policies = random.networks(12);
        std::erase_if(policies, [](const auto& each) {
            return each.policy.enabled && !canonicalSubnet(each.subnetCIDR);
        });
        for (FirewallNetworkPolicy& each : policies) {
            each.dnsProxyEnabled = false;  // a review drops gateways that the text would take
        }

        ASSERT_EQ(
            withoutTime(anchorText(review(policies, {}).enforceable, generatedAt)),
            withoutTime(anchorText(policies, generatedAt)));
    }
}

TEST(AnchorTextTest, WritesANameOfMegabytes) {
    const std::string name(std::size_t{4} << 20, 'n');

    const std::string text = anchorText(std::vector{enforcedNetwork(name)}, generatedAt);

    EXPECT_THAT(text, HasSubstr("# --- " + name + " (192.168.64.0/24) ---\n"));
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
