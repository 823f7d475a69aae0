// SPDX-License-Identifier: MIT

#include "firewall/analysis/Words.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "firewall/policy/Addresses.h"
#include "support/Text.h"

namespace tarnvale::FirewallAnalysis {

namespace {

using NetworkFirewall::FirewallRule;

std::string inQuotes(const std::string& text) {
    std::string quoted = "\"";
    support::appendOnOneLine(quoted, text);
    return quoted + "\"";
}

/// Empty where the rule is about any port.
std::string portWords(const FirewallRule& rule) {
    const auto ports = NetworkFirewall::portsOf(rule);
    if (!ports) {
        return inQuotes(rule.ports);
    }
    return ports->first == 0
               ? std::string()
               : words(
                     PortRange{.first = ports->first, .last = ports->last.value_or(ports->first)});
}

/// "80 and 443"; where that is shorter, "(all ports but 22)".
std::string portWords(std::span<const PortRange> ports) {
    std::vector<std::string> texts;
    if (ports.front().first == 0 && ports.back().last == PortRange{}.last) {
        for (std::size_t i = 1; i < ports.size(); ++i) {
            texts.push_back(words(PortRange{
                .first = static_cast<std::uint16_t>(ports[i - 1].last + 1),
                .last = static_cast<std::uint16_t>(ports[i].first - 1)}));
        }
        return "(all ports but " + joined(texts) + ")";
    }
    for (const PortRange& range : ports) {
        texts.push_back(words(range));
    }
    return joined(texts);
}

/// Empty where the rule is about any remote.
std::string remoteWords(const FirewallRule& rule) {
    const auto remote = NetworkFirewall::parseRemote(rule.remoteCIDR);
    if (!remote) {
        return inQuotes(rule.remoteCIDR);
    }
    std::string text;
    if (remote->network) {
        append(text, *remote->network);
    }
    return text;
}

}  // namespace

std::string words(const FirewallRule& rule) {
    std::string text = rawValue(rule.action);
    const std::string ports = portWords(rule);
    const std::string remote = remoteWords(rule);
    if (rule.proto != FirewallRule::Proto::any) {
        text += std::string(" ") + rawValue(rule.proto);
    } else if (!ports.empty()) {
        text += " tcp and udp";
    }
    if (!ports.empty()) {
        text += " " + ports;
    }
    if (remote.empty()) {
        return rule.proto == FirewallRule::Proto::any && ports.empty() ? text + " everything"
                                                                       : text;
    }
    if (rule.proto != FirewallRule::Proto::any || !ports.empty()) {
        text += rule.direction == FirewallRule::Direction::inbound ? " from" : " to";
    }
    return text + " " + remote;
}

std::string words(std::span<const Region> regions) {
    std::vector<std::string> texts;
    for (const Region& region : regions) {
        std::string text = FirewallAnalysis::text(region.prefix);
        text = text == "any" ? "anywhere" : text;
        if (!region.except.empty()) {
            std::vector<std::string> except;
            for (const AddressRange& range : region.except) {
                except.push_back(FirewallAnalysis::text(range));
            }
            text += " but " + joined(except);
        }
        texts.push_back(std::move(text));
    }
    return joined(texts);
}

std::string words(Kinds kinds, std::span<const PortRange> ports, Direction direction) {
    const bool isEveryPort = ports.size() == 1 && ports[0] == PortRange{};
    if (kinds == everyKind && isEveryPort) {
        return "everything";
    }
    const std::string dhcpPort = std::to_string(dhcpSourcePort(direction));
    std::vector<std::string> names;
    if (kinds.contains(Kind::tcp)) {
        names.emplace_back("tcp");
    }
    if (kinds.contains(Kind::udp)) {
        names.push_back(
            kinds.contains(Kind::dhcp) ? "udp" : "udp (but from port " + dhcpPort + ")");
    } else if (kinds.contains(Kind::dhcp)) {
        names.push_back("udp from port " + dhcpPort);
    }
    if (kinds.contains(Kind::icmp)) {
        names.emplace_back("icmp");
    }
    if (kinds.contains(Kind::other)) {
        names.emplace_back("other protocols");
    }
    return joined(names) + (isEveryPort ? "" : " " + portWords(ports));
}

std::string packetWords(const PacketChange& change) {
    std::string text = words(change.kinds, change.ports, change.direction);
    if (!change.isButDhcp) {
        return text;
    }
    return text + (text == "everything" ? " but DHCP" : " (without DHCP)");
}

std::string joined(std::span<const std::string> parts) {
    std::string text;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) {
            text += i + 1 < parts.size() ? ", " : " and ";
        }
        text += parts[i];
    }
    return text;
}

std::string words(const PortRange& ports) {
    return ports.first == ports.last
               ? std::to_string(ports.first)
               : std::to_string(ports.first) + "-" + std::to_string(ports.last);
}

}  // namespace tarnvale::FirewallAnalysis
