// SPDX-License-Identifier: MIT

#include "helperctl/StatusPage.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <ostream>
#include <tuple>
#include <utility>

#include <pwd.h>

#include "firewall/analysis/Lines.h"
#include "firewall/analysis/Listing.h"
#include "firewall/analysis/Words.h"
#include "firewall/policy/Addresses.h"
#include "firewall/policy/Problems.h"
#include "firewall/policy/Review.h"
#include "helperctl/Console.h"
#include "support/Decimal.h"
#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

using FirewallAnalysis::AddressRange;
using FirewallAnalysis::Direction;
using FirewallAnalysis::Kind;
using FirewallAnalysis::Line;
using FirewallAnalysis::ListedLine;
using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;

/// A stored network that may hold a subnet, and whose it is.
struct Claim {
    const std::string* owner = nullptr;
    const NetworkFirewall::Entry* entry = nullptr;
    const FirewallNetworkPolicy* network = nullptr;
};

/// The claim on each subnet that the merge keeps: that of the owner who applied most recently.
std::map<std::string, Claim, std::less<>> claims(const NetworkFirewall::PolicyStore& store) {
    std::map<std::string, Claim, std::less<>> kept;
    for (const auto& [owner, entry] : store.owners) {
        for (const auto& network : entry.policies) {
            const auto subnet = NetworkFirewall::canonicalSubnet(network.subnetCIDR);
            if (!subnet) {
                continue;
            }
            const auto [place, isFirst] =
                kept.try_emplace(*subnet, Claim{&owner, &entry, &network});
            const auto precedence = [](const Claim& claim) {
                return std::tie(claim.entry->appliedAt.seconds, *claim.owner);
            };
            const Claim claim{&owner, &entry, &network};
            if (!isFirst && place->second.owner != &owner &&
                precedence(claim) > precedence(place->second)) {
                place->second = claim;
            }
        }
    }
    return kept;
}

/// The names in the ruleset's comments, such as "# --- Lab (192.168.64.0/24) ---", by subnet.
std::map<std::string, std::string, std::less<>> namesIn(std::string_view rulesetText) {
    constexpr std::string_view start = "# --- ";
    constexpr std::string_view end = ") ---";
    std::map<std::string, std::string, std::less<>> names;
    for (auto line : support::split(rulesetText, '\n')) {
        const auto bracket = line.rfind(" (");
        if (line.starts_with(start) && line.ends_with(end) && bracket != std::string_view::npos &&
            bracket >= start.size()) {
            names.try_emplace(
                std::string(line.substr(bracket + 2, line.size() - bracket - 2 - end.size())),
                line.substr(start.size(), bracket - start.size()));
        }
    }
    return names;
}

/// A line as the rule that could have given it.
FirewallRule ruleOf(const Line& line) {
    FirewallRule rule;
    rule.direction = line.direction == Direction::in ? FirewallRule::Direction::outbound
                                                     : FirewallRule::Direction::inbound;
    rule.action = line.passes ? FirewallRule::Action::allow : FirewallRule::Action::deny;
    if (line.kinds != FirewallAnalysis::everyKind) {
        rule.proto = line.kinds.contains(Kind::tcp)    ? FirewallRule::Proto::tcp
                     : line.kinds.contains(Kind::icmp) ? FirewallRule::Proto::icmp
                                                       : FirewallRule::Proto::udp;
    }
    rule.remoteCIDR = FirewallAnalysis::text(line.remote);
    if (line.ports != FirewallAnalysis::PortRange{}) {
        rule.ports = FirewallAnalysis::words(line.ports);
    }
    return rule;
}

/// The lines that a stored network gives, of which each is found once.
class GivenLines {
public:
    explicit GivenLines(const FirewallNetworkPolicy* network) : network_(network) {
        if (network != nullptr) {
            lines_ = FirewallAnalysis::linesOf(canonical(*network)).lines;
            isTaken_.resize(lines_.size());
        }
    }

    /// The first line like this that hasn't been found before; null if there is none.
    const Line* find(const Line& line) {
        // They are listed in their order, unless somebody else has changed the anchor.
        for (std::size_t count = 0; count < lines_.size(); ++count) {
            const std::size_t i = (next_ + count) % lines_.size();
            if (!isTaken_[i] && FirewallAnalysis::sameEffect(lines_[i], line)) {
                isTaken_[i] = true;
                next_ = i + 1;
                return &lines_[i];
            }
        }
        return nullptr;
    }

    const FirewallRule& rule(std::size_t number) const {
        return network_->policy.rules.at(number - 1);
    }

private:
    /// As the review leaves it, with a gateway that lies on the subnet or none.
    static FirewallNetworkPolicy canonical(const FirewallNetworkPolicy& network) {
        const auto enforceable = NetworkFirewall::review({network}, {}).enforceable;
        return enforceable.empty() ? network : enforceable.front();
    }

    const FirewallNetworkPolicy* network_;
    std::vector<Line> lines_;
    std::vector<bool> isTaken_;
    std::size_t next_ = 0;
};

std::string defaultWords(const Line& line) {
    return std::string("everything else, ") + (line.passes ? "allow" : "deny");
}

/// Whether a listed line is the last of its direction: those match everything.
bool isDefault(const Line& line) {
    return line.kinds == FirewallAnalysis::everyKind && line.remote == AddressRange{} &&
           line.ports == FirewallAnalysis::PortRange{};
}

LineStatus statusOf(const ListedLine& listed, const Line* given, const GivenLines& lines) {
    const auto& line = given != nullptr ? *given : listed.line;
    const auto counters = listed.counters.value_or(FirewallAnalysis::Counters{});
    LineStatus status{
        .direction = line.direction == Direction::in ? "in" : "out",
        .origin = "rule",
        .rule = std::nullopt,
        .words = {},
        .passes = line.passes,
        .packets = static_cast<std::int64_t>(counters.packets),
        .bytes = static_cast<std::int64_t>(counters.bytes),
        .states = static_cast<std::int64_t>(counters.states),
        .lines = {listed.text}};
    if (line.origin == Line::Origin::dhcp) {
        status.origin = "dhcp";
        status.words = "DHCP";
    } else if (line.origin == Line::Origin::dns) {
        status.origin = "dns";
        status.words = "DNS at the gateway";
    } else if (given != nullptr && line.origin == Line::Origin::rule) {
        status.rule = static_cast<std::int64_t>(line.ruleNumber);
        status.words = "rule " + std::to_string(line.ruleNumber) + ", " +
                       FirewallAnalysis::words(lines.rule(line.ruleNumber));
    } else if (isDefault(line)) {
        status.origin = "default";
        status.words = defaultWords(line);
    } else {
        status.words = FirewallAnalysis::words(ruleOf(line));
    }
    return status;
}

/// Appends the line, or adds it to the one before if both are of one rule, or of DNS.
void append(std::vector<LineStatus>& lines, LineStatus line) {
    const bool continues = !lines.empty() && lines.back().origin == line.origin &&
                           lines.back().direction == line.direction &&
                           ((line.rule && lines.back().rule == line.rule) || line.origin == "dns");
    if (!continues) {
        lines.push_back(std::move(line));
        return;
    }
    auto& last = lines.back();
    last.packets += line.packets;
    last.bytes += line.bytes;
    last.states += line.states;
    last.lines.push_back(std::move(line.lines.front()));
}

std::string ownerWords(const std::string& owner) {
    if (owner == NetworkFirewall::legacyOwner) {
        return "stored before lists were kept by user";
    }
    const auto uid = support::parseNumber<uid_t>(owner);
    const passwd* const entry = uid ? ::getpwuid(*uid) : nullptr;
    return entry != nullptr ? "of " + std::string(entry->pw_name) + " (uid " + owner + ")"
                            : "of uid " + owner;
}

std::string rate(std::int64_t now, std::int64_t before, double seconds) {
    // A load in between has set the counters to zero.
    const auto passed = static_cast<double>(now - std::min(before, now));
    return std::to_string(std::llround(passed / seconds)) + "/s";
}

void printLine(
    const LineStatus& line, const LineStatus* before, double seconds, std::ostream& out) {
    std::string text =
        printable(line.words) + ": " + counted(static_cast<std::size_t>(line.packets), "packet");
    if (before != nullptr) {
        text += ", " + rate(line.packets, before->packets, seconds);
    }
    if (line.states > 0) {
        text += ", " + counted(static_cast<std::size_t>(line.states), "state");
    }
    writeWrapped(out, text, 4);
}

void printNetwork(
    const NetworkStatus& network, const NetworkStatus* before, double seconds, std::ostream& out) {
    out << '\n';
    writeWrapped(
        out,
        (network.name ? printable(*network.name) + ", " : "") + network.subnet +
            (network.owner ? ", " + printable(ownerWords(*network.owner)) : ""),
        0);
    const bool isComparable = before != nullptr && before->lines.size() == network.lines.size();
    for (const auto& [direction, heading] :
         {std::pair{"in", "  from the machines\n"}, std::pair{"out", "  to the machines\n"}}) {
        out << heading;
        for (std::size_t i = 0; i < network.lines.size(); ++i) {
            if (network.lines[i].direction == direction) {
                printLine(
                    network.lines[i], isComparable ? &before->lines[i] : nullptr, seconds, out);
            }
        }
    }
}

}  // namespace

std::optional<FirewallStatus> firewallStatus(
    std::string_view report,
    std::string_view rulesetText,
    const std::optional<NetworkFirewall::PolicyStore>& store) {
    const auto listing = FirewallAnalysis::readReport(report);
    if (!listing) {
        return std::nullopt;
    }
    FirewallStatus status{
        .enabled = listing->isEnabled,
        .pf = listing->status,
        .networks = {},
        .others = listing->others};
    const auto names = namesIn(rulesetText);
    const auto stored = store ? claims(*store) : decltype(claims({})){};
    std::map<std::string, std::pair<std::size_t, GivenLines>> known;  // by subnet
    for (const auto& listed : listing->lines) {
        const auto subnet = FirewallAnalysis::text(listed.subnet);
        const auto claim = stored.find(subnet);
        const bool isStored = claim != stored.end() && claim->second.network->policy.enabled;
        auto [place, isNew] = known.try_emplace(
            subnet, status.networks.size(), GivenLines(isStored ? claim->second.network : nullptr));
        auto& [index, given] = place->second;
        if (isNew) {
            auto& network = status.networks.emplace_back();
            network.subnet = subnet;
            if (isStored) {
                network.name = claim->second.network->name;
                network.owner = *claim->second.owner;
            } else if (const auto name = names.find(subnet); name != names.end()) {
                network.name = name->second;
            }
        }
        append(status.networks[index].lines, statusOf(listed, given.find(listed.line), given));
    }
    return status;
}

void printText(
    const FirewallStatus& status,
    std::ostream& output,
    const FirewallStatus* before,
    double seconds) {
    output << (!status.enabled   ? "It is unknown whether pf is on."
               : *status.enabled ? "pf is on."
                                 : "pf is off: nothing is enforced.")
           << (status.enabled == false && !status.networks.empty() ? " Rules are loaded for "
                                                                   : " The helper enforces ")
           << counted(status.networks.size(), "network") << ".\n";
    if (!status.networks.empty()) {
        output
            << "The counters start at zero whenever the rules are loaded: at each apply, at each\n"
               "removal, and at each start of the helper, which ends after two idle minutes.\n";
    }
    for (std::size_t i = 0; i < status.networks.size(); ++i) {
        const auto& network = status.networks[i];
        const NetworkStatus* earlier = nullptr;
        if (before != nullptr && i < before->networks.size() &&
            before->networks[i].subnet == network.subnet) {
            earlier = &before->networks[i];
        }
        printNetwork(network, earlier, seconds, output);
    }
}

}  // namespace tarnvale::helperctl
