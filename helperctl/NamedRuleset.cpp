// SPDX-License-Identifier: MIT

#include "helperctl/NamedRuleset.h"

#include <cstdint>
#include <stdexcept>
#include <utility>

#include "firewall/analysis/Listing.h"
#include "firewall/analysis/Words.h"
#include "firewall/policy/AnchorText.h"
#include "firewall/policy/PolicyJson.h"
#include "helperctl/Console.h"
#include "helperctl/StatusPage.h"
#include "helperctl/StoredNetworks.h"
#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

using FirewallAnalysis::Direction;
using FirewallAnalysis::Line;
using NetworkFirewall::FirewallNetworkPolicy;

/// The lines that the network has in the ruleset's text.
std::vector<std::string> writtenLines(const FirewallNetworkPolicy& network) {
    std::vector<std::string> lines;
    const std::string anchor = NetworkFirewall::anchorText({&network, 1}, {});
    for (const std::string_view line : support::split(anchor, '\n')) {
        if (!line.empty() && line.front() != '#') {
            lines.emplace_back(line);
        }
    }
    return lines;
}

const char* word(Line::Origin origin) {
    switch (origin) {
        case Line::Origin::dhcp:
            return "dhcp";
        case Line::Origin::dns:
            return "dns";
        case Line::Origin::rule:
            return "rule";
        case Line::Origin::byDefault:
            break;
    }
    return "default";
}

std::string wordsFor(const Line& line, const FirewallNetworkPolicy& network) {
    switch (line.origin) {
        case Line::Origin::dhcp:
            return "the DHCP line";
        case Line::Origin::dns:
            return line.kinds.contains(FirewallAnalysis::Kind::tcp) ? "the DNS line for tcp"
                                                                    : "the DNS line for udp";
        case Line::Origin::rule:
            return "rule " + std::to_string(line.ruleNumber) + " (" +
                   printable(
                       FirewallAnalysis::words(network.policy.rules.at(line.ruleNumber - 1))) +
                   ")";
        case Line::Origin::byDefault:
            break;
    }
    return line.direction == Direction::in ? "the default for outbound traffic"
                                           : "the default for inbound traffic";
}

/// What gave a line in force, as far as that is known.
std::string wordsFor(const LineStatus& line) {
    if (line.origin == "dhcp") {
        return "the DHCP line";
    }
    if (line.origin == "dns") {
        return "the DNS line";
    }
    if (line.origin == "default") {
        return line.direction == "in" ? "the default for outbound traffic"
                                      : "the default for inbound traffic";
    }
    const auto comma = line.words.find(", ");
    if (!line.rule || comma == std::string::npos) {
        return "a rule (" + printable(line.words) + ")";
    }
    return line.words.substr(0, comma) + " (" + printable(line.words.substr(comma + 2)) + ")";
}

}  // namespace

NamedRuleset NamedRuleset::ofFile(
    std::string_view policyData, std::span<const NetworkFirewall::HostAddress> hosts) {
    return ofList(NetworkFirewall::decodePolicyData(policyData), hosts);
}

NamedRuleset NamedRuleset::ofList(
    std::vector<FirewallNetworkPolicy> list, std::span<const NetworkFirewall::HostAddress> hosts) {
    NamedRuleset named;
    named.list_ = FirewallAnalysis::enforcedList(std::move(list), hosts);
    return named;
}

NamedRuleset NamedRuleset::ofReport(
    const std::string& report, std::span<const NetworkFirewall::HostAddress> hosts) {
    const auto status = firewallStatus(report, loadedRulesetText(), readStore());
    if (!status) {
        throw std::runtime_error("The helper's report isn't of the known form.");
    }
    if (!status->others.empty()) {
        throw std::runtime_error(
            "It is unknown which rules are in force, because pfctl says: " +
            status->others.front());
    }
    NamedRuleset named;
    named.list_.ruleset = FirewallAnalysis::enforcedList({}, hosts).ruleset;
    named.isOff_ = status->enabled == false;
    if (named.isOff_) {
        return named;
    }
    for (const NetworkStatus& network : status->networks) {
        auto& live = named.live_.emplace_back();
        live.name = printable(network.name.value_or(network.subnet));
        auto& lines = named.list_.ruleset.networks.emplace_back();
        for (const LineStatus& given : network.lines) {
            for (const std::string& text : given.lines) {
                const auto listed = FirewallAnalysis::readListedLine(text).value();
                lines.subnet = listed.subnet;
                lines.lines.push_back(listed.line);
                lines.lines.back().ruleNumber = static_cast<std::size_t>(given.rule.value_or(0));
                if (given.origin == "dns") {
                    // The proxy is the host's, whatever addresses this machine has now.
                    named.list_.ruleset.hostAddresses.push_back(listed.line.remote.first);
                }
                live.lines.push_back(
                    {.line = text,
                     .origin = given.origin,
                     .words = wordsFor(given),
                     .rule = given.rule,
                     .path = {},
                     .why = {}});
            }
        }
    }
    return named;
}

NamedRuleset NamedRuleset::inForce(
    const Connect& connect, std::span<const NetworkFirewall::HostAddress> hosts) {
    const auto reply = connect()->firewallReport();
    if (reply.error) {
        throw std::runtime_error(*reply.error);
    }
    return ofReport(reply.result.value_or(""), hosts);
}

std::string NamedRuleset::networkName(std::size_t network) const {
    if (!live_.empty()) {
        return live_.at(network).name;
    }
    return printable(list_.networks.at(list_.places.at(network)).policy.name);
}

std::vector<ExplainedLine> NamedRuleset::explainedLines(std::size_t network) const {
    if (!live_.empty()) {
        return live_.at(network).lines;
    }
    const std::size_t place = list_.places.at(network);
    const FirewallNetworkPolicy& policy = list_.networks.at(place).policy;
    const std::vector<std::string> texts = writtenLines(policy);
    std::vector<ExplainedLine> lines;
    lines.reserve(texts.size());
    for (const Line& line : ruleset().networks.at(network).lines) {
        ExplainedLine& explained = lines.emplace_back();
        explained.line = texts.at(lines.size() - 1);
        explained.origin = word(line.origin);
        explained.words = wordsFor(line, policy);
        if (line.ruleNumber != 0) {
            explained.rule = static_cast<std::int64_t>(line.ruleNumber);
            explained.path = "[" + std::to_string(place) + "].policy.rules[" +
                             std::to_string(line.ruleNumber - 1) + "]";
        }
    }
    return lines;
}

std::vector<std::string> NamedRuleset::lineTexts(std::size_t network) const {
    if (!live_.empty()) {
        std::vector<std::string> texts;
        for (const ExplainedLine& line : live_.at(network).lines) {
            texts.push_back(line.line);
        }
        return texts;
    }
    return writtenLines(list_.networks.at(list_.places.at(network)).policy);
}

std::string NamedRuleset::wordsOf(std::size_t network, std::size_t line) const {
    if (!live_.empty()) {
        return live_.at(network).lines.at(line).words;
    }
    return wordsFor(
        ruleset().networks.at(network).lines.at(line),
        list_.networks.at(list_.places.at(network)).policy);
}

const NetworkFirewall::FirewallRule* NamedRuleset::ruleOf(
    std::size_t network, std::size_t line) const {
    const std::size_t number = ruleset().networks.at(network).lines.at(line).ruleNumber;
    return number == 0 || !live_.empty()
               ? nullptr
               : &list_.networks.at(list_.places.at(network)).policy.policy.rules.at(number - 1);
}

}  // namespace tarnvale::helperctl
