// SPDX-License-Identifier: MIT

#include "firewall/analysis/Lines.h"

#include <bit>

namespace tarnvale::FirewallAnalysis {

namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;
using Origin = Line::Origin;

constexpr Kinds anyUdp{Kind::udp, Kind::dhcp};

constexpr PortRange onePort(std::uint16_t port) {
    return {.first = port, .last = port};
}

Direction directionOf(FirewallRule::Direction direction) {
    return direction == FirewallRule::Direction::inbound ? Direction::out : Direction::in;
}

/// The kinds of the lines that a rule gives: of one line, or of two behind one another.
struct RuleKinds {
    Kinds first;
    Kinds second;
};

RuleKinds kindsOf(FirewallRule::Proto proto, bool hasPorts) {
    switch (proto) {
        case FirewallRule::Proto::tcp:
            return {.first = {Kind::tcp}, .second = {}};
        case FirewallRule::Proto::udp:
            return {.first = anyUdp, .second = {}};
        case FirewallRule::Proto::icmp:
            return {.first = {Kind::icmp}, .second = {}};
        case FirewallRule::Proto::any:
            break;
    }
    return hasPorts ? RuleKinds{.first = {Kind::tcp}, .second = anyUdp}
                    : RuleKinds{.first = everyKind, .second = {}};
}

void addDhcp(std::vector<Line>& lines) {
    for (const Direction direction : allDirections) {
        lines.push_back(
            {.direction = direction,
             .passes = true,
             .kinds = {Kind::dhcp},
             .remote = {},
             .ports = onePort(dhcpPort(direction)),
             .origin = Origin::dhcp});
    }
}

void addDns(std::vector<Line>& lines, const FirewallNetworkPolicy& network) {
    constexpr std::uint16_t domain = 53;
    if (!network.dnsProxyEnabled || !network.gatewayIPv4) {
        return;
    }
    const auto gateway = NetworkFirewall::parseIPv4(*network.gatewayIPv4);
    if (!gateway) {
        return;
    }
    const Address address = addressNumber(*gateway);
    for (const Kinds kinds : {anyUdp, Kinds{Kind::tcp}}) {
        lines.push_back(
            {.direction = Direction::in,
             .passes = true,
             .kinds = kinds,
             .remote = {.first = address, .last = address},
             .ports = onePort(domain),
             .origin = Origin::dns});
    }
}

void addRule(std::vector<Line>& lines, const FirewallRule& rule, std::size_t number) {
    const auto remote = NetworkFirewall::parseRemote(rule.remoteCIDR);
    const auto ports = NetworkFirewall::portsOf(rule);
    if (!rule.enabled || !remote || !ports) {
        return;
    }
    const bool hasPorts = ports->first != 0;
    const RuleKinds kinds = kindsOf(rule.proto, hasPorts);
    lines.push_back(
        {.direction = directionOf(rule.direction),
         .passes = rule.action == FirewallRule::Action::allow,
         .kinds = kinds.first,
         .remote = remote->network ? rangeOf(*remote->network) : AddressRange{},
         .ports = hasPorts
                      ? PortRange{.first = ports->first, .last = ports->last.value_or(ports->first)}
                      : PortRange{},
         .origin = Origin::rule,
         .ruleNumber = number});
    if (!kinds.second.isEmpty()) {
        lines.push_back(lines.back());
        lines.back().kinds = kinds.second;
    }
}

}  // namespace

Address addressNumber(const NetworkFirewall::IPv4Address& address) {
    Address number = 0;
    for (const std::uint8_t byte : address) {
        number = number << 8U | byte;
    }
    return number;
}

NetworkFirewall::IPv4Address addressBytes(Address address) {
    NetworkFirewall::IPv4Address bytes{};
    unsigned shift = 32;
    for (std::uint8_t& byte : bytes) {
        shift -= 8;
        byte = static_cast<std::uint8_t>(address >> shift & 0xFFU);
    }
    return bytes;
}

AddressRange rangeOf(const NetworkFirewall::CIDR& cidr) {
    const auto hostBits = static_cast<unsigned>(32 - cidr.prefixLength);
    const Address hosts = hostBits == 32 ? ~Address{0} : (Address{1} << hostBits) - 1;
    const Address first = addressNumber(cidr.address) & ~hosts;
    return {.first = first, .last = first | hosts};
}

int prefixLengthOf(const AddressRange& range) {
    return std::countl_zero(range.first ^ range.last);
}

std::string text(const AddressRange& range) {
    if (range == AddressRange{}) {
        return "any";
    }
    std::string text = NetworkFirewall::dottedQuad(addressBytes(range.first));
    if (range.first != range.last) {
        text += "/" + std::to_string(prefixLengthOf(range));
    }
    return text;
}

NetworkLines linesOf(const FirewallNetworkPolicy& network) {
    NetworkLines made;
    made.subnet = rangeOf(NetworkFirewall::parseSubnet(network.subnetCIDR).value());
    made.lines.reserve(network.policy.rules.size() + 6);
    addDhcp(made.lines);
    addDns(made.lines, network);
    std::size_t number = 0;
    for (const FirewallRule& rule : network.policy.rules) {
        addRule(made.lines, rule, ++number);
    }
    const auto addDefault = [&](Direction direction, FirewallRule::Action action) {
        made.lines.push_back(
            {.direction = direction,
             .passes = action == FirewallRule::Action::allow,
             .remote = {},
             .ports = {}});
    };
    addDefault(Direction::in, network.policy.defaultOutbound);
    addDefault(Direction::out, network.policy.defaultInbound);
    return made;
}

std::optional<std::size_t> decidingLine(
    const NetworkLines& network,
    Direction direction,
    Kind kind,
    Address remote,
    std::uint16_t port) {
    for (std::size_t i = 0; i < network.lines.size(); ++i) {
        const Line& line = network.lines[i];
        if (line.direction == direction && line.matches(kind, remote, port)) {
            return i;
        }
    }
    return std::nullopt;
}

}  // namespace tarnvale::FirewallAnalysis
