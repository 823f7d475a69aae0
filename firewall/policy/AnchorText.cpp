// SPDX-License-Identifier: MIT

#include "firewall/policy/AnchorText.h"

#include <array>
#include <cstddef>
#include <optional>

#include "firewall/policy/Addresses.h"
#include "support/Text.h"
#include "support/Timestamp.h"

namespace tarnvale::NetworkFirewall {

namespace {

using namespace std::string_view_literals;
using Action = FirewallRule::Action;
using Direction = FirewallRule::Direction;
using Proto = FirewallRule::Proto;

// Roughly the length of a rule and of a network's other lines: reserving it avoids reallocations.
constexpr std::size_t typicalRuleLength = 96;
constexpr std::size_t typicalNetworkLength = 640;

template <class... Pieces>
void appendLine(std::string& out, const Pieces&... pieces) {
    (out.append(pieces), ...);
    out += '\n';
}

/// The protocol part of each line of a rule; an empty one matches any protocol.
std::span<const std::string_view> protocolTexts(Proto proto, bool hasPorts) {
    static constexpr std::array<std::string_view, 4> texts = {
        " proto tcp", " proto udp", " proto icmp", ""};
    static constexpr std::span<const std::string_view> all = texts;
    switch (proto) {
        case Proto::tcp:
            return all.subspan(0, 1);
        case Proto::udp:
            return all.subspan(1, 1);
        case Proto::icmp:
            return all.subspan(2, 1);
        case Proto::any:
            break;
    }
    // Only TCP and UDP have ports, and pf wants them named.
    return hasPorts ? all.subspan(0, 2) : all.subspan(3, 1);
}

void appendRuleLines(std::string& out, const FirewallRule& rule, std::string_view subnet) {
    const auto remote = parseRemote(rule.remoteCIDR);
    const auto ports = portsOf(rule);
    if (!remote || !ports) {
        return;
    }
    const bool hasPorts = ports->first != 0;
    const bool allows = rule.action == Action::allow;
    const bool isInbound = rule.direction == Direction::inbound;
    for (const std::string_view protocol : protocolTexts(rule.proto, hasPorts)) {
        out += allows ? "pass"sv : "block drop"sv;
        out += isInbound ? " out quick"sv : " in quick"sv;
        out += protocol;
        out += " from "sv;
        if (isInbound) {
            append(out, *remote);
            out += " to "sv;
            out += subnet;
        } else {
            out += subnet;
            out += " to "sv;
            append(out, *remote);
        }
        if (hasPorts) {
            out += " port "sv;
            append(out, *ports);
        }
        out += allows ? " keep state\n"sv : "\n"sv;
    }
}

void appendNetwork(
    std::string& out, const FirewallNetworkPolicy& network, std::string_view subnet) {
    out += "# --- ";
    support::appendOnOneLine(out, network.name);
    appendLine(out, " (", subnet, ") ---");

    appendLine(out, "pass in quick proto udp from ", subnet, " port 68 to any port 67 keep state");
    appendLine(out, "pass out quick proto udp from any port 67 to ", subnet, " port 68");

    if (network.dnsProxyEnabled && network.gatewayIPv4) {
        if (const auto address = parseIPv4(*network.gatewayIPv4)) {
            const std::string gateway = dottedQuad(*address);
            for (const std::string_view protocol : {"udp", "tcp"}) {
                appendLine(
                    out,
                    "pass in quick proto ",
                    protocol,
                    " from ",
                    subnet,
                    " to ",
                    gateway,
                    "/32 port 53 keep state");
            }
        }
    }

    for (const FirewallRule& rule : network.policy.rules) {
        if (rule.enabled) {
            appendRuleLines(out, rule, subnet);
        }
    }

    if (network.policy.defaultOutbound == Action::allow) {
        appendLine(out, "pass in quick from ", subnet, " to any keep state");
    } else {
        appendLine(out, "block drop in quick from ", subnet, " to any");
    }
    if (network.policy.defaultInbound == Action::allow) {
        appendLine(out, "pass out quick from any to ", subnet, " keep state");
    } else {
        appendLine(out, "block drop out quick from any to ", subnet);
    }

    out += '\n';
}

std::size_t estimatedLength(std::span<const FirewallNetworkPolicy> policies) {
    std::size_t length = typicalNetworkLength;
    for (const FirewallNetworkPolicy& network : policies) {
        length += typicalNetworkLength + network.name.size() +
                  typicalRuleLength * network.policy.rules.size();
    }
    return length;
}

}  // namespace

std::string anchorText(
    std::span<const FirewallNetworkPolicy> policies,
    std::chrono::system_clock::time_point generatedAt) {
    std::string text;
    text.reserve(estimatedLength(policies));
    appendLine(
        text, "# Tarnvale network firewall — generated ", support::iso8601(generatedAt), ".");
    appendLine(
        text, "# Loaded into pf anchor \"", anchorName, "\" by TarnvaleAdminHelper. Do not edit.");
    text += '\n';
    for (const FirewallNetworkPolicy& network : policies) {
        if (!network.policy.enabled) {
            continue;
        }
        if (const auto subnet = canonicalSubnet(network.subnetCIDR)) {
            appendNetwork(text, network, *subnet);
        }
    }
    return text;
}

std::vector<std::string> ruleLines(const FirewallRule& rule, std::string_view subnet) {
    std::string text;
    appendRuleLines(text, rule, subnet);
    std::vector<std::string> lines;
    for (const std::string_view line : support::split(text, '\n')) {
        lines.emplace_back(line);
    }
    lines.pop_back();  // the empty piece behind the last line feed
    return lines;
}

}  // namespace tarnvale::NetworkFirewall
