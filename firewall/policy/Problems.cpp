// SPDX-License-Identifier: MIT

#include "firewall/policy/Problems.h"

#include <algorithm>
#include <cstdint>

#include "firewall/policy/Addresses.h"
#include "support/Decimal.h"

namespace tarnvale::NetworkFirewall {

namespace {

constexpr std::string_view bridgePrefix = "bridge";

/// The system numbers the bridges of virtual networks from 100 on; lower ones are the user's own.
constexpr std::int64_t maxUserBridge = 99;

std::string inQuotes(std::string_view text) {
    std::string quotedText;
    quotedText.reserve(text.size() + 2);
    quotedText += '"';
    quotedText += text;
    quotedText += '"';
    return quotedText;
}

bool isVirtualNetworkBridge(std::string_view interface) {
    if (!interface.starts_with(bridgePrefix)) {
        return false;
    }
    const auto number = support::parseDecimal(interface.substr(bridgePrefix.size()));
    return number && *number > maxUserBridge;
}

}  // namespace

std::optional<std::string> subnetProblem(
    std::string_view subnetText, std::span<const HostAddress> hosts) {
    const auto subnet = parseSubnet(subnetText);
    if (!subnet) {
        return "the subnet " + inQuotes(subnetText) +
               " isn't one macOS gives a virtual network (a /24 such as 192.168.64.0/24, inside "
               "192.168.0.0/16), so its rules can't be keyed on it.";
    }
    for (const HostAddress& host : hosts) {
        const int bits = std::min(subnet->prefixLength, host.prefixLength);
        if (isOfOwnNetwork(host) && prefixMatches(subnet->address, host.bytes, bits)) {
            std::string problem;
            append(problem, *subnet);
            problem += " overlaps " + host.interface + " (" + dottedQuad(host.bytes) +
                       "), one of this Mac's own networks; rules there would cut the Mac off "
                       "from it.";
            return problem;
        }
    }
    return std::nullopt;
}

std::optional<std::string> ruleProblem(const FirewallRule& rule) {
    if (!parseRemote(rule.remoteCIDR)) {
        return inQuotes(rule.remoteCIDR) + " isn't an IPv4 address or CIDR (such as 10.0.0.0/8).";
    }
    if (!portsOf(rule)) {
        return inQuotes(rule.ports) +
               " isn't a port or port range (1–65535, such as 443 or 8000-8080).";
    }
    return std::nullopt;
}

bool isOfOwnNetwork(const HostAddress& host) {
    return host.bytes.size() == IPv4Address{}.size() && !isVirtualNetworkBridge(host.interface);
}

}  // namespace tarnvale::NetworkFirewall
