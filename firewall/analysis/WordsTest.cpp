// SPDX-License-Identifier: MIT

#include "firewall/analysis/Words.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/FirewallRule.h"

namespace tarnvale::FirewallAnalysis {
namespace {

using NetworkFirewall::FirewallRule;
using Action = FirewallRule::Action;
using Proto = FirewallRule::Proto;
using test::rule;

TEST(WordsTest, SayWhatARuleSays) {
    constexpr auto in = FirewallRule::Direction::inbound;
    constexpr auto out = FirewallRule::Direction::outbound;
    struct Case {
        FirewallRule rule;
        const char* words = nullptr;
    };
    const std::vector<Case> cases{
        {rule(Action::deny, Proto::any, "10.0.0.0/8", "", out), "deny 10.0.0.0/8"},
        {rule(Action::allow, Proto::tcp, "any", "22", in), "allow tcp 22"},
        {rule(Action::allow, Proto::tcp, " ANY ", "8000:8080", in), "allow tcp 8000-8080"},
        {rule(Action::deny, Proto::udp, "1.1.1.1", "53", out), "deny udp 53 to 1.1.1.1/32"},
        {rule(Action::deny, Proto::udp, "1.1.1.1/8", "53", in), "deny udp 53 from 1.1.1.1/8"},
        {rule(Action::allow, Proto::any, "any", "443", in), "allow tcp and udp 443"},
        {rule(Action::deny, Proto::icmp, "any", "80", in), "deny icmp"},
        {rule(Action::allow, Proto::any, "", " ", in), "allow everything"},
        {rule(Action::allow, Proto::any, "office\n", "x", in),
         R"(allow tcp and udp "x" from "office ")"}};
    for (const auto& [rule, expected] : cases) {
        EXPECT_EQ(words(rule), expected);
    }
}

TEST(WordsTest, SayPortsByThoseThatAreMissing) {
    const auto ofTcp = [](std::vector<PortRange> ports) {
        return words(Kinds{Kind::tcp}, ports, FirewallAnalysis::Direction::in);
    };

    EXPECT_EQ(ofTcp({{}}), "tcp");
    EXPECT_EQ(ofTcp({{.first = 0, .last = 21}}), "tcp 0-21");
    EXPECT_EQ(ofTcp({{.first = 23, .last = 65535}}), "tcp 23-65535");
    EXPECT_EQ(
        ofTcp({{.first = 0, .last = 21}, {.first = 23, .last = 24}, {.first = 30, .last = 65535}}),
        "tcp (all ports but 22 and 25-29)");
}

TEST(WordsTest, SayPorts) {
    EXPECT_EQ(words(PortRange{.first = 22, .last = 22}), "22");
    EXPECT_EQ(words(PortRange{.first = 22, .last = 23}), "22-23");
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
