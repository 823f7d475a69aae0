// SPDX-License-Identifier: MIT
//
// The records in which the application describes the firewall of each virtual network. They hold
// its texts exactly as sent; Addresses.h and Problems.h decide what the texts mean.

#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/Uuid.h"

namespace tarnvale::NetworkFirewall {

/// One rule of a network's firewall.
struct FirewallRule {
    /// Which way the traffic flows, seen from the virtual machines.
    enum class Direction : std::uint8_t { inbound, outbound };
    enum class Action : std::uint8_t { allow, deny };
    enum class Proto : std::uint8_t { any, tcp, udp, icmp };

    static constexpr std::array allDirections{Direction::inbound, Direction::outbound};
    static constexpr std::array allActions{Action::allow, Action::deny};
    static constexpr std::array allProtos{Proto::any, Proto::tcp, Proto::udp, Proto::icmp};

    support::Uuid id;
    bool enabled = false;  ///< a disabled rule is neither checked nor enforced
    Direction direction = Direction::inbound;
    Action action = Action::allow;
    Proto proto = Proto::any;
    std::string remoteCIDR;  ///< the far side as typed: "any", an IPv4 address or CIDR
    std::string ports;       ///< as typed: empty, a port or a range; ignored for `icmp`

    bool operator==(const FirewallRule&) const = default;
};

/// The value's word in JSON: "inbound", "deny", "icmp".
constexpr const char* rawValue(FirewallRule::Direction direction) {
    return direction == FirewallRule::Direction::inbound ? "inbound" : "outbound";
}
constexpr const char* rawValue(FirewallRule::Action action) {
    return action == FirewallRule::Action::allow ? "allow" : "deny";
}
constexpr const char* rawValue(FirewallRule::Proto proto) {
    switch (proto) {
        case FirewallRule::Proto::any:
            return "any";
        case FirewallRule::Proto::tcp:
            return "tcp";
        case FirewallRule::Proto::udp:
            return "udp";
        case FirewallRule::Proto::icmp:
            break;
    }
    return "icmp";
}

/// True for the protocols whose rules may name ports: all but `icmp`.
constexpr bool carriesPorts(FirewallRule::Proto proto) {
    return proto != FirewallRule::Proto::icmp;
}

/// The firewall of one network.
struct NetworkFirewallPolicy {
    bool enabled = false;  ///< the network is not enforced at all when false
    FirewallRule::Action defaultInbound = FirewallRule::Action::allow;   ///< towards the machines
    FirewallRule::Action defaultOutbound = FirewallRule::Action::allow;  ///< from the machines
    std::vector<FirewallRule> rules;  ///< in the user's order; the first that matches decides

    bool operator==(const NetworkFirewallPolicy&) const = default;
};

/// One virtual network with its firewall, as the application sends it and the store keeps it.
struct FirewallNetworkPolicy {
    support::Uuid networkID;
    std::string name;        ///< the display name, any text
    std::string subnetCIDR;  ///< as the application knows it, such as "192.168.64.0/24"
    std::optional<std::string> gatewayIPv4;  ///< the host's address there; the DNS proxy's too
    bool dnsProxyEnabled = false;            ///< whether the machines use that proxy
    NetworkFirewallPolicy policy;

    bool operator==(const FirewallNetworkPolicy&) const = default;
};

}  // namespace tarnvale::NetworkFirewall

/// Like equality, the hash takes in every field.
template <>
struct std::hash<tarnvale::NetworkFirewall::FirewallRule> {
    std::size_t operator()(const tarnvale::NetworkFirewall::FirewallRule& rule) const noexcept;
};
template <>
struct std::hash<tarnvale::NetworkFirewall::NetworkFirewallPolicy> {
    std::size_t operator()(
        const tarnvale::NetworkFirewall::NetworkFirewallPolicy& policy) const noexcept;
};
template <>
struct std::hash<tarnvale::NetworkFirewall::FirewallNetworkPolicy> {
    std::size_t operator()(
        const tarnvale::NetworkFirewall::FirewallNetworkPolicy& network) const noexcept;
};
