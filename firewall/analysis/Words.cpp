// SPDX-License-Identifier: MIT

#include "firewall/analysis/Words.h"

#include "firewall/policy/Addresses.h"
#include "support/Text.h"

namespace tarnvale::FirewallAnalysis {

namespace {

using NetworkFirewall::FirewallRule;

std::string quoted(const std::string& text) {
    std::string quoted = "\"";
    support::appendOnOneLine(quoted, text);
    return quoted + "\"";
}

/// Empty where the rule is about any port.
std::string portWords(const FirewallRule& rule) {
    const auto ports = NetworkFirewall::portsOf(rule);
    if (!ports) {
        return quoted(rule.ports);
    }
    return ports->first == 0
               ? std::string()
               : words(
                     PortRange{.first = ports->first, .last = ports->last.value_or(ports->first)});
}

/// Empty where the rule is about any remote.
std::string remoteWords(const FirewallRule& rule) {
    const auto remote = NetworkFirewall::parseRemote(rule.remoteCIDR);
    if (!remote) {
        return quoted(rule.remoteCIDR);
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

std::string words(const PortRange& ports) {
    return ports.first == ports.last
               ? std::to_string(ports.first)
               : std::to_string(ports.first) + "-" + std::to_string(ports.last);
}

}  // namespace tarnvale::FirewallAnalysis
