// SPDX-License-Identifier: MIT

#include "helperctl/Explain.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "firewall/analysis/Verdict.h"
#include "firewall/analysis/Words.h"
#include "helperctl/Console.h"

namespace tarnvale::helperctl {
namespace {

using FirewallAnalysis::Address;
using FirewallAnalysis::Crossing;
using FirewallAnalysis::Direction;
using FirewallAnalysis::Kind;
using FirewallAnalysis::Line;
using FirewallAnalysis::Packet;
using FirewallAnalysis::ReviewedNetwork;
using FirewallAnalysis::Verdict;
using FirewallAnalysis::Way;
using NetworkFirewall::FirewallRule;
using Standing = ReviewedNetwork::Standing;

/// The side of the packet that is not of the network.
Address remoteOf(const Packet& packet, Direction direction) {
    return (direction == Direction::in ? packet.destination : packet.source).address.value();
}

/// Why the line doesn't match the packet, by the first condition that doesn't hold.
std::string mismatch(
    const Line& line, const FirewallRule* rule, const Packet& packet, Direction direction) {
    const Kind kind = packet.kind(direction);
    if (!line.kinds.contains(kind)) {
        const bool isUdp = kind == Kind::udp || kind == Kind::dhcp;
        if (line.origin == Line::Origin::dhcp && isUdp) {
            return "comes from another port";
        }
        const bool isPortless = kind == Kind::icmp || kind == Kind::other;
        return rule != nullptr && rule->proto == FirewallRule::Proto::any && isPortless
                   ? "another protocol (any with ports is tcp and udp only)"
                   : "another protocol";
    }
    return line.remote.contains(remoteOf(packet, direction)) ? "another port" : "another address";
}

/// The two lines of an `any` rule with ports become one entry.
bool isOfTheSameRule(const ExplainedLine& line, const std::vector<ExplainedLine>& lines) {
    return line.rule && !lines.empty() && lines.back().rule == line.rule;
}

ExplainedCrossing explained(
    const NamedRuleset& rules, const Packet& packet, const Crossing& crossing) {
    const std::size_t network = crossing.network.value();
    ExplainedCrossing result{
        .direction = crossing.direction == Direction::in ? "in" : "out",
        .network = rules.networkName(network),
        .passes = crossing.passes,
        .decides = {},
        .before = {}};
    const auto& lines = rules.ruleset().networks.at(network).lines;
    const std::size_t end = crossing.line.value_or(lines.size());
    const auto texts = rules.explainedLines(network);
    for (std::size_t i = 0; i < end; ++i) {
        if (lines[i].direction != crossing.direction) {
            continue;
        }
        ExplainedLine line = texts[i];
        line.why = mismatch(lines[i], rules.ruleOf(network, i), packet, crossing.direction);
        if (isOfTheSameRule(line, result.before)) {
            // The line that is nearer to a match says more.
            if (result.before.back().why->starts_with("another protocol")) {
                result.before.back() = std::move(line);
            }
            continue;
        }
        result.before.push_back(std::move(line));
    }
    if (crossing.line) {
        result.decides = texts[*crossing.line];
        // The other line of the rule that decides is no other reason.
        if (isOfTheSameRule(*result.decides, result.before)) {
            result.before.pop_back();
        }
    }
    return result;
}

std::string reasonFor(const NamedRuleset& rules, const Verdict& verdict) {
    if (rules.isOff()) {
        return ": pf is off";
    }
    switch (verdict.way) {
        case Way::ipv6:
            return ": no line is about IPv6";
        case Way::insideNetwork:
            return ": between two machines of one network nothing is filtered";
        case Way::overLoopback:
        case Way::fromHost:
        case Way::toHost:
        case Way::throughHost:
            break;
    }
    const Crossing* const deciding = verdict.deciding();
    if (deciding == nullptr) {
        return ": no line is about it";
    }
    const std::string network = rules.networkName(deciding->network.value());
    const ExplainedLine line = rules.explainedLines(*deciding->network).at(deciding->line.value());
    if (line.rule) {
        const std::string number = "rule " + std::to_string(*line.rule);
        return ", by " + number + " of " + network + line.words.substr(number.size());
    }
    return ", by " + line.words + " of " + network;
}

/// What isn't enforced of the networks that the packet's addresses are in.
void noteStandings(
    std::vector<std::string>& notes, const NamedRuleset& rules, const Packet& packet) {
    const auto& networks = rules.list().networks;
    for (const ReviewedNetwork& network : networks) {
        const auto subnet = NetworkFirewall::parseCIDR(network.policy.subnetCIDR);
        if (network.standing == Standing::enforced || !subnet) {
            continue;
        }
        const auto range = FirewallAnalysis::rangeOf(*subnet);
        if (!range.contains(packet.source.address.value()) &&
            !range.contains(packet.destination.address.value())) {
            continue;
        }
        const std::string name = printable(network.policy.name);
        switch (network.standing) {
            case Standing::off:
                notes.push_back(name + " isn't enforced: its firewall is off.");
                break;
            case Standing::refused:
                notes.push_back(name + " isn't enforced: " + network.problem);
                break;
            case Standing::claimed:
                notes.push_back(
                    name +
                    " isn't enforced: " + printable(networks.at(network.claimedBy).policy.name) +
                    " has the same subnet and comes first.");
                break;
            case Standing::enforced:
                break;
        }
    }
}

void noteTheWay(std::vector<std::string>& notes, const Verdict& verdict) {
    switch (verdict.way) {
        case Way::ipv6:
            notes.emplace_back("Every line names an IPv4 network, so IPv6 meets no rule.");
            return;
        case Way::insideNetwork:
            notes.emplace_back(
                "The bridge switches it from machine to machine, and pf never sees it. (On Linux "
                "it "
                "does where br_netfilter is active.)");
            return;
        case Way::overLoopback:
            notes.emplace_back(
                R"(The host's packet to itself crosses pf twice: "out", then "in".)");
            break;
        case Way::fromHost:
            notes.emplace_back("The host's own packet crosses pf once: \"out\".");
            break;
        case Way::toHost:
            notes.emplace_back("A packet to the host itself crosses pf once: \"in\".");
            break;
        case Way::throughHost:
            if (verdict.crossings.at(0).network && verdict.crossings.at(1).network) {
                notes.emplace_back(
                    R"(Between two networks a packet crosses pf twice: "in" at the first, "out" at )"
                    "the second. Both have to pass it.");
            }
            break;
    }
    if (verdict.passes() && verdict.deciding() != nullptr) {
        notes.emplace_back(
            "Replies pass by the state that this packet leaves, whatever the rules say.");
    }
}

/// Says it where a rule's address has host bits, which are ignored.
void noteHostBits(
    std::vector<std::string>& notes, const NamedRuleset& rules, const Verdict& verdict) {
    const Crossing* const deciding = verdict.deciding();
    if (deciding == nullptr) {
        return;
    }
    const FirewallRule* const rule = rules.ruleOf(*deciding->network, deciding->line.value());
    const auto remote =
        rule == nullptr ? std::nullopt : NetworkFirewall::parseRemote(rule->remoteCIDR);
    if (!remote || !remote->network) {
        return;
    }
    const auto range = FirewallAnalysis::rangeOf(*remote->network);
    if (FirewallAnalysis::addressNumber(remote->network->address) != range.first) {
        std::string written;
        append(written, *remote);
        notes.push_back(written + " means all of " + FirewallAnalysis::text(range) + ".");
    }
}

}  // namespace

Explanation explain(const NamedRuleset& rules, const Packet& packet) {
    const Verdict verdict = FirewallAnalysis::judge(rules.ruleset(), packet);
    const std::string word = verdict.passes() ? "passed" : "blocked";
    Explanation explanation{
        .packet = text(packet),
        .verdict = word,
        .sentence = word + reasonFor(rules, verdict),
        .crossings = {},
        .notes = {}};
    for (const Crossing& crossing : verdict.crossings) {
        if (crossing.network) {
            explanation.crossings.push_back(explained(rules, packet, crossing));
        }
    }
    noteTheWay(explanation.notes, verdict);
    noteHostBits(explanation.notes, rules, verdict);
    if (!packet.isIPv6()) {
        noteStandings(explanation.notes, rules, packet);
    }
    return explanation;
}

}  // namespace tarnvale::helperctl
