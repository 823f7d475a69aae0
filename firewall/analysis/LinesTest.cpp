// SPDX-License-Identifier: MIT

#include "firewall/analysis/Lines.h"

#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/AnchorText.h"
#include "firewall/policy/Review.h"
#include "support/Text.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::FirewallAnalysis {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;

std::string port(const PortRange& ports) {
    return ports.first == ports.last
               ? std::to_string(ports.first)
               : std::to_string(ports.first) + ":" + std::to_string(ports.last);
}

/// The lines' own texts, as far as they say what the line does: no host bits, and of a port range
/// of one port only the port.
std::string textOf(const Line& line, const std::string& subnet) {
    const bool isIn = line.direction == Direction::in;
    std::string remote = text(line.remote);
    if (remote != "any" && remote.find('/') == std::string::npos) {
        remote += "/32";
    }
    std::string protocol;
    if (line.kinds != everyKind) {
        protocol = line.kinds.contains(Kind::tcp)    ? " proto tcp"
                   : line.kinds.contains(Kind::icmp) ? " proto icmp"
                                                     : " proto udp";
    }
    std::string from = isIn ? subnet : remote;
    if (line.origin == Line::Origin::dhcp) {
        from += " port " + std::to_string(dhcpSourcePort(line.direction));
    }
    const std::string to =
        (isIn ? remote : subnet) + (line.ports == PortRange{} ? "" : " port " + port(line.ports));
    return std::string(line.passes ? "pass " : "block drop ") + (isIn ? "in" : "out") + " quick" +
           protocol + " from " + from + " to " + to;
}

/// The same of a line that was written.
std::string plain(std::string line, const FirewallNetworkPolicy& network) {
    constexpr std::string_view keepState = " keep state";
    if (line.ends_with(keepState)) {
        line.resize(line.size() - keepState.size());
    }
    for (const FirewallRule& rule : network.policy.rules) {
        const auto remote = NetworkFirewall::parseRemote(rule.remoteCIDR);
        if (!remote || !remote->network) {
            continue;
        }
        std::string written;
        append(written, *remote);
        std::string masked = text(rangeOf(*remote->network));
        masked += masked.find('/') == std::string::npos && masked != "any" ? "/32" : "";
        for (const std::string& place : {" from " + written + " to ", " to " + written}) {
            const auto found = line.find(place);
            const auto end = found + place.size();
            if (found != std::string::npos &&
                (end == line.size() || line[end] == ' ' || place.ends_with(' '))) {
                line.replace(line.find(written, found), written.size(), masked);
                break;
            }
        }
    }
    const auto colon = line.find(':');
    const auto blank = line.rfind(' ');
    if (colon != std::string::npos &&
        line.substr(blank + 1, colon - blank - 1) == line.substr(colon + 1)) {
        line.resize(colon);
    }
    return line;
}

TEST(LinesTest, AreTheOnesThatTheHelperWrites) {
    test::RandomPolicies random(1);
    std::size_t compared = 0;
    for (int i = 0; i < 500; ++i) {
        for (const auto& network : NetworkFirewall::review(random.networks(8), {}).enforceable) {
            std::vector<std::string> written;
            const std::string anchor = NetworkFirewall::anchorText(std::vector{network}, {});
            for (const std::string_view line : support::split(anchor, '\n')) {
                if (!line.empty() && line.front() != '#') {
                    written.push_back(plain(std::string(line), network));
                }
            }

            const NetworkLines made = linesOf(network);

            std::vector<std::string> texts;
            for (const Line& line : made.lines) {
                texts.push_back(textOf(line, network.subnetCIDR));
            }
            ASSERT_EQ(texts, written) << anchor;
            compared += texts.size();
        }
    }
    EXPECT_GT(compared, 2'000U);
}

TEST(LinesTest, KnowTheirRule) {
    FirewallNetworkPolicy network;
    network.subnetCIDR = "192.168.64.0/24";
    network.policy.enabled = true;
    network.policy.rules.resize(4);
    network.policy.rules[0].enabled = false;
    network.policy.rules[1] = {.id = {}, .enabled = true, .remoteCIDR = "nowhere", .ports = ""};
    network.policy.rules[2] = {.id = {}, .enabled = true, .remoteCIDR = "any", .ports = "443"};
    network.policy.rules[3] = {.id = {}, .enabled = true, .remoteCIDR = "10.0.0.7/8", .ports = ""};

    std::vector<std::size_t> rules;
    const auto made = linesOf(network);
    for (const Line& line : made.lines) {
        rules.push_back(line.ruleNumber);
    }

    EXPECT_THAT(rules, testing::ElementsAre(0, 0, 3, 3, 4, 0, 0));
    EXPECT_EQ(made.lines[4].remote, (AddressRange{.first = 0x0A000000, .last = 0x0AFFFFFF}));
    EXPECT_EQ(made.subnet, (AddressRange{.first = 0xC0A84000, .last = 0xC0A840FF}));
}

TEST(LinesTest, RangesAreWrittenAsPrefixes) {
    EXPECT_EQ(text(AddressRange{}), "any");
    EXPECT_EQ(text(AddressRange{.first = 0, .last = 0x7FFFFFFF}), "0.0.0.0/1");
    EXPECT_EQ(text(AddressRange{.first = 0xFFFFFFFF, .last = 0xFFFFFFFF}), "255.255.255.255");
    EXPECT_EQ(rangeOf({.address = {1, 2, 3, 4}, .prefixLength = 0}), AddressRange{});
    EXPECT_EQ(text(rangeOf({.address = {10, 20, 30, 47}, .prefixLength = 28})), "10.20.30.32/28");
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
