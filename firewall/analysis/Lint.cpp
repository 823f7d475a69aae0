// SPDX-License-Identifier: MIT

#include "firewall/analysis/Lint.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include "firewall/analysis/Effects.h"
#include "firewall/analysis/Faces.h"
#include "firewall/analysis/NetworkReach.h"
#include "firewall/analysis/Words.h"
#include "firewall/policy/Problems.h"
#include "support/Text.h"

namespace tarnvale::FirewallAnalysis {

namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;
using Origin = Line::Origin;
using Standing = ReviewedNetwork::Standing;

/// How many rules a sentence names.
constexpr std::size_t maxNamed = 5;

std::string inQuotes(std::string_view text) {
    std::string quoted = "\"";
    support::appendOnOneLine(quoted, text);
    return quoted + "\"";
}

bool hasHostBits(const NetworkFirewall::CIDR& cidr) {
    return addressNumber(cidr.address) != rangeOf(cidr).first;
}

std::string textOf(const NetworkFirewall::CIDR& cidr) {
    std::string text;
    append(text, cidr);
    return text;
}

/// Which networks of a ruleset share addresses. No two have the same subnet.
class Overlaps {
public:
    explicit Overlaps(const Ruleset& ruleset) {
        std::vector<AddressRange> subnets;
        subnets.reserve(ruleset.networks.size() + 1);
        for (const NetworkLines& network : ruleset.networks) {
            subnets.push_back(network.subnet);
        }
        faces_ = facesOf(std::move(subnets));
        networks_.resize(faces_.size());
        for (std::size_t network = 0; network < ruleset.networks.size(); ++network) {
            homes_.push_back(faceOf(faces_, ruleset.networks[network].subnet));
            networks_[homes_.back()] = network;
        }
    }

    /// The others with addresses of this one, in order.
    std::vector<std::size_t> of(std::size_t network) const {
        std::vector<std::size_t> others;
        const std::size_t home = homes_[network];
        for (std::size_t face = home; face != 0;) {
            face = faces_[face].around;
            append(others, face);
        }
        for (std::size_t face = home + 1; face < faces_[home].end; ++face) {
            append(others, face);
        }
        std::ranges::sort(others);
        return others;
    }

private:
    void append(std::vector<std::size_t>& networks, std::size_t face) const {
        if (networks_[face]) {
            networks.push_back(*networks_[face]);
        }
    }

    std::vector<Face> faces_;
    std::vector<std::optional<std::size_t>> networks_;  ///< by face
    std::vector<std::size_t> homes_;                    ///< by network
};

/// Looks at one network.
class Linter {
public:
    Linter(
        const EnforcedList& list,
        const Overlaps& overlaps,
        std::size_t place,
        std::vector<Finding>& findings)
        : list_(list),
          overlaps_(overlaps),
          place_(place),
          network_(list.networks[place]),
          policy_(network_.policy),
          findings_(findings) {}

    /// For a network that is enforced, `lines` are its lines.
    void look(std::optional<std::size_t> placeInRuleset) {
        lookAtStanding();
        if (!placeInRuleset) {
            return;
        }
        lines_ = &list_.ruleset.networks[*placeInRuleset];
        lookAtOverlaps(*placeInRuleset);
        lookAtSubnet();
        lookAtGateway();
        const auto aboutRules = static_cast<std::ptrdiff_t>(findings_.size());
        lookAtRules();
        lookAtIdleRules();
        std::ranges::stable_sort(
            findings_.begin() + aboutRules, findings_.end(), {}, &Finding::ruleNumber);
    }

private:
    void add(
        const char* code,
        Severity severity,
        std::size_t ruleNumber,
        const char* member,
        std::string message) {
        findings_.push_back(
            {.code = code,
             .severity = severity,
             .network = place_,
             .ruleNumber = ruleNumber,
             .member = member,
             .message = std::move(message)});
    }

    std::string nameOf(std::size_t place) const {
        return inQuotes(list_.networks[place].policy.name);
    }

    void lookAtStanding() {
        switch (network_.standing) {
            case Standing::off:
                add("off",
                    Severity::note,
                    0,
                    "policy",
                    "Its firewall is off: nothing is enforced.");
                break;
            case Standing::refused:
                add("refused",
                    Severity::error,
                    0,
                    "subnetCIDR",
                    "It is refused: " + network_.problem);
                break;
            case Standing::claimed:
                add("claimed",
                    Severity::error,
                    0,
                    "subnetCIDR",
                    "It is left out: " + nameOf(network_.claimedBy) +
                        " has the same subnet and comes first.");
                break;
            case Standing::enforced:
                break;
        }
    }

    /// Networks of different sizes may overlap; the first one of the anchor decides.
    void lookAtOverlaps(std::size_t placeInRuleset) {
        const std::vector<std::size_t> others = overlaps_.of(placeInRuleset);
        isOverlapped_ = !others.empty();
        for (const std::size_t i : others) {
            if (i > placeInRuleset) {
                break;
            }
            const AddressRange& other = list_.ruleset.networks[i].subnet;
            const std::string name = nameOf(list_.places[i]);
            if (other.contains(lines_->subnet)) {
                add("covered",
                    Severity::error,
                    0,
                    "subnetCIDR",
                    "None of its rules is ever asked: " + name + " has all of " +
                        text(lines_->subnet) + " and comes first.");
            } else {
                add("covered",
                    Severity::warning,
                    0,
                    "subnetCIDR",
                    "Of its addresses, " + text(other) + " are " + name + "'s, which comes first.");
            }
        }
    }

    void lookAtSubnet() {
        const auto written = NetworkFirewall::parseCIDR(network_.writtenSubnet);
        if (written && hasHostBits(*written)) {
            add("host-bits",
                Severity::note,
                0,
                "subnetCIDR",
                textOf(*written) + " means all of " + text(lines_->subnet) + ".");
        }
    }

    void lookAtGateway() {
        if (policy_.gatewayIPv4) {
            return;
        }
        const char* const consequence =
            policy_.dnsProxyEnabled ? " No line passes DNS to the proxy." : "";
        if (network_.writtenGateway) {
            add("gateway-dropped",
                policy_.dnsProxyEnabled ? Severity::warning : Severity::note,
                0,
                "gatewayIPv4",
                "The gateway " + inQuotes(*network_.writtenGateway) +
                    " is dropped: it isn't the address of a host in " + text(lines_->subnet) + "." +
                    consequence);
        } else if (policy_.dnsProxyEnabled) {
            add("gateway-missing",
                Severity::warning,
                0,
                "dnsProxyEnabled",
                std::string("The DNS proxy is on, but there is no gateway.") + consequence);
        }
    }

    void lookAtRules() {
        std::size_t number = 0;
        for (const FirewallRule& rule : policy_.policy.rules) {
            ++number;
            if (!rule.enabled) {
                add("disabled",
                    Severity::note,
                    number,
                    "enabled",
                    "It is off: nothing is enforced.");
                continue;
            }
            if (const auto problem = NetworkFirewall::ruleProblem(rule)) {
                const bool isRemote = !NetworkFirewall::parseRemote(rule.remoteCIDR);
                add("faulty",
                    Severity::error,
                    number,
                    isRemote ? "remoteCIDR" : "ports",
                    "It is left out: " + *problem);
                continue;
            }
            lookAtPorts(rule, number);
            lookAtRemote(rule, number);
        }
    }

    void lookAtPorts(const FirewallRule& rule, std::size_t number) {
        if (!carriesPorts(rule.proto) && !support::trimWhitespace(rule.ports).empty()) {
            add("ports-ignored",
                Severity::warning,
                number,
                "ports",
                "icmp has no ports: " + inQuotes(rule.ports) + " is ignored.");
        }
    }

    void lookAtRemote(const FirewallRule& rule, std::size_t number) {
        const auto remote = NetworkFirewall::parseRemote(rule.remoteCIDR).value();
        if (!remote.network) {
            return;
        }
        const AddressRange range = rangeOf(*remote.network);
        if (hasHostBits(*remote.network)) {
            add("host-bits",
                Severity::note,
                number,
                "remoteCIDR",
                textOf(*remote.network) + " means all of " + text(range) + ".");
        }
        if (lines_->subnet.contains(range)) {
            lookAtOwnSubnet(rule, number, range);
        }
    }

    /// Whether the rule is about anybody but machines of its own network, whose packets to each
    /// other never reach pf.
    void lookAtOwnSubnet(const FirewallRule& rule, std::size_t number, const AddressRange& range) {
        if (!policy_.gatewayIPv4 || isOverlapped_) {
            return;  // who the host is there isn't known, or the bridge isn't the only way
        }
        std::optional<Address> host;
        for (const Address address : list_.ruleset.hostAddresses) {
            if (range.contains(address)) {
                host = address;
            }
        }
        const bool isBroadcast = rule.direction == FirewallRule::Direction::outbound &&
                                 range.contains(lines_->subnet.last);
        if (host && range.first == range.last) {
            return;
        }
        if (host) {
            add("own-subnet",
                Severity::warning,
                number,
                "remoteCIDR",
                "It is about the host only: two machines of one network are never filtered.");
        } else if (!isBroadcast) {
            add("own-subnet",
                Severity::warning,
                number,
                "remoteCIDR",
                "It never applies: " + text(range) +
                    " is in the network's own subnet, and two machines of one network are never "
                    "filtered.");
        }
    }

    void lookAtIdleRules() {
        for (const IdleRule& rule : idleRules(*lines_)) {
            if (rule.reason == IdleRule::Reason::shadowed) {
                const std::string takers = wordsFor(rule.lines);
                add("shadowed",
                    Severity::warning,
                    rule.number,
                    "",
                    "It never decides: " + takers + (isPlural(rule.lines) ? " come" : " comes") +
                        " first and" + (isPlural(rule.lines) ? " take" : " takes") +
                        " all of its packets.");
            } else {
                add("redundant",
                    Severity::warning,
                    rule.number,
                    "",
                    "It changes nothing: without it, " + wordsFor(rule.lines) +
                        (isPlural(rule.lines) ? " give" : " gives") + " the same verdict.");
            }
            idle_.push_back(rule.number);
        }
        for (const Line& line : lines_->lines) {
            if (line.origin == Origin::rule && !line.passes) {
                lookAtOvertaking(line);
            }
        }
    }

    /// Whether DHCP or DNS passes in spite of a rule that would block it.
    void lookAtOvertaking(const Line& denying) {
        const bool namesPorts = !(denying.ports == PortRange{});
        if (std::ranges::binary_search(idle_, denying.ruleNumber)) {
            return;
        }
        for (const Line& line : lines_->lines) {
            if (line.origin != Origin::dhcp && line.origin != Origin::dns) {
                break;
            }
            const bool remotesMeet =
                line.remote.contains(denying.remote) || denying.remote.contains(line.remote);
            if (line.direction != denying.direction || !denying.kinds.overlaps(line.kinds) ||
                !remotesMeet || !denying.ports.contains(line.ports)) {
                continue;
            }
            // A rule against some remote isn't meant against DHCP, which reaches all of them.
            if (line.origin == Origin::dhcp && !namesPorts &&
                !denying.remote.contains(line.remote)) {
                continue;
            }
            const std::string what =
                line.origin == Origin::dhcp ? "DHCP" : "DNS to " + text(line.remote);
            const std::string message = what + " passes in spite of it: its lines come first.";
            if (!findings_.empty() && findings_.back().ruleNumber == denying.ruleNumber &&
                findings_.back().message == message) {
                continue;
            }
            add("overtaken",
                namesPorts ? Severity::warning : Severity::note,
                denying.ruleNumber,
                namesPorts ? "ports" : "",
                message);
        }
    }

    bool isPlural(const std::vector<std::size_t>& lines) const {
        return named(lines).size() > 1 || lines_->lines[lines.front()].origin == Origin::dns;
    }

    /// What gave the lines, each once.
    std::vector<std::string> named(const std::vector<std::size_t>& lines) const {
        std::vector<std::string> names;
        for (const std::size_t place : lines) {
            std::string name = nameOfLine(lines_->lines[place]);
            if (names.empty() || names.back() != name) {
                names.push_back(std::move(name));
            }
        }
        return names;
    }

    std::string nameOfLine(const Line& line) const {
        switch (line.origin) {
            case Origin::dhcp:
                return "the DHCP line";
            case Origin::dns:
                return "the DNS lines";
            case Origin::rule:
                return "rule " + std::to_string(line.ruleNumber) + " (" +
                       words(policy_.policy.rules[line.ruleNumber - 1]) + ")";
            case Origin::byDefault:
                break;
        }
        return line.direction == Direction::in ? "the default for outbound traffic"
                                               : "the default for inbound traffic";
    }

    std::string wordsFor(const std::vector<std::size_t>& lines) const {
        std::vector<std::string> names = named(lines);
        if (names.size() > maxNamed) {
            const std::size_t more = names.size() - maxNamed + 1;
            names.resize(maxNamed - 1);
            names.push_back(std::to_string(more) + " others");
        }
        return joined(names);
    }

    const EnforcedList& list_;
    const Overlaps& overlaps_;
    std::size_t place_;
    const ReviewedNetwork& network_;
    const FirewallNetworkPolicy& policy_;
    std::vector<Finding>& findings_;
    const NetworkLines* lines_ = nullptr;
    bool isOverlapped_ = false;
    std::vector<std::size_t> idle_;  ///< the numbers of the idle rules, in order
};

/// Notes which networks' machines others may open connections to. Of networks that overlap, it says
/// nothing.
void lookAtReach(
    const EnforcedList& list, const Overlaps& overlaps, std::vector<Finding>& findings) {
    const NetworkReach reach(list.ruleset);
    std::vector<std::size_t> apart;
    std::vector<std::size_t> senders;
    for (std::size_t network = 0; network < list.places.size(); ++network) {
        if (overlaps.of(network).empty()) {
            apart.push_back(network);
        }
    }
    std::ranges::copy_if(
        apart, std::back_inserter(senders), [&](std::size_t i) { return reach.mayReach(i); });
    for (const std::size_t to : apart) {
        std::vector<std::string> names;
        for (const std::size_t from : senders) {
            if (names.size() > maxNamed || !reach.mayBeReached(to)) {
                break;
            }
            if (from != to && reach.reaches(from, to)) {
                names.push_back(inQuotes(list.networks[list.places[from]].policy.name));
            }
        }
        if (names.size() > maxNamed) {
            names.resize(maxNamed - 1);
            names.emplace_back("others");
        }
        if (!names.empty()) {
            findings.push_back(
                {.code = "reachable",
                 .severity = Severity::note,
                 .network = list.places[to],
                 .ruleNumber = 0,
                 .member = "policy",
                 .message = "Machines of " + joined(names) +
                            " may open connections to its machines: the rules of both sides pass "
                            "some. They do so even where macOS itself keeps networks apart, whose "
                            "rules come later."});
        }
    }
}

/// Whether some line of the network blocks.
bool blocksAnything(const NetworkLines& network) {
    return std::ranges::any_of(network.lines, [](const Line& line) { return !line.passes; });
}

}  // namespace

const char* rawValue(Severity severity) {
    switch (severity) {
        case Severity::error:
            return "error";
        case Severity::warning:
            return "warning";
        case Severity::note:
            break;
    }
    return "note";
}

std::vector<Finding> lint(const EnforcedList& list) {
    std::vector<Finding> findings;
    const Overlaps overlaps(list.ruleset);
    std::size_t placeInRuleset = 0;
    bool isIPv6Noted = false;
    for (std::size_t place = 0; place < list.networks.size(); ++place) {
        std::vector<Finding> found;
        const bool isEnforced = list.networks[place].standing == Standing::enforced;
        Linter(list, overlaps, place, found)
            .look(isEnforced ? std::optional(placeInRuleset) : std::nullopt);
        if (isEnforced && !isIPv6Noted && blocksAnything(list.ruleset.networks[placeInRuleset])) {
            isIPv6Noted = true;
            found.insert(
                found.begin(),
                {.code = "ipv6",
                 .severity = Severity::note,
                 .network = place,
                 .ruleNumber = 0,
                 .member = "policy",
                 .message = "Every line names an IPv4 network: what it blocks over IPv4 passes "
                            "over IPv6. That is so for all networks."});
        }
        placeInRuleset += isEnforced ? 1 : 0;
        findings.insert(
            findings.end(),
            std::make_move_iterator(found.begin()),
            std::make_move_iterator(found.end()));
    }
    lookAtReach(list, overlaps, findings);
    const auto order = [](const Finding& finding) {
        return std::pair(finding.network, finding.ruleNumber);
    };
    std::ranges::stable_sort(findings, {}, order);
    return findings;
}

}  // namespace tarnvale::FirewallAnalysis
