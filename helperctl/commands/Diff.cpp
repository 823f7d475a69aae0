// SPDX-License-Identifier: MIT

#include "helperctl/commands/Diff.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <utility>

#include <unistd.h>

#include "firewall/analysis/Differences.h"
#include "firewall/analysis/Words.h"
#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/Review.h"
#include "helperctl/Answer.h"
#include "helperctl/NamedRuleset.h"
#include "helperctl/PolicyFile.h"
#include "support/Timestamp.h"

namespace tarnvale::helperctl {
namespace {

using FirewallAnalysis::Direction;
using FirewallAnalysis::GovernedPart;
using FirewallAnalysis::PacketChange;
using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;
using Networks = std::vector<FirewallNetworkPolicy>;

const char* onOrOff(bool value) {
    return value ? "on" : "off";
}

/// Finds what the records of two lists have that differs.
class RecordComparison {
public:
    RecordComparison(const Networks& before, const Networks& now) {
        compareById(
            before,
            now,
            &FirewallNetworkPolicy::networkID,
            [this](const auto* old, const auto* young, std::size_t, std::size_t) {
                compare(old, young);
            });
    }

    std::vector<std::string> take() { return std::move(found_); }

private:
    /// Calls the body with each pair of records that have the same ID, and with those that are in
    /// one list only. Of several with one ID, the first belongs to the first.
    template <class Record, class Body>
    static void compareById(
        const std::vector<Record>& before,
        const std::vector<Record>& now,
        support::Uuid Record::*id,
        const Body& body) {
        std::map<std::array<std::uint8_t, 16>, std::vector<std::size_t>> places;
        for (std::size_t i = before.size(); i-- > 0;) {
            places[(before[i].*id).bytes].push_back(i);
        }
        for (std::size_t i = 0; i < now.size(); ++i) {
            auto& own = places[(now[i].*id).bytes];
            if (own.empty()) {
                body(static_cast<const Record*>(nullptr), &now[i], std::size_t{0}, i);
            } else {
                body(&before[own.back()], &now[i], own.back(), i);
                own.pop_back();
            }
        }
        std::vector<std::size_t> gone;
        for (const auto& [bytes, own] : places) {
            gone.insert(gone.end(), own.begin(), own.end());
        }
        std::ranges::sort(gone);
        for (const std::size_t place : gone) {
            body(&before[place], static_cast<const Record*>(nullptr), place, std::size_t{0});
        }
    }

    void add(const std::string& what) { found_.push_back(name_ + what); }

    void compare(const FirewallNetworkPolicy* old, const FirewallNetworkPolicy* young) {
        name_ = (young != nullptr ? young : old)->name;
        if (old == nullptr || young == nullptr) {
            add(std::string(old == nullptr ? " is new: " : " is gone: ") +
                (young != nullptr ? young : old)->subnetCIDR);
            return;
        }
        compareTexts(", its name", old->name, young->name);
        compareTexts(", its subnet", old->subnetCIDR, young->subnetCIDR);
        compareTexts(
            ", its gateway",
            old->gatewayIPv4.value_or("none"),
            young->gatewayIPv4.value_or("none"));
        compareTexts(
            ", the DNS proxy", onOrOff(old->dnsProxyEnabled), onOrOff(young->dnsProxyEnabled));
        compareTexts(
            ", its firewall", onOrOff(old->policy.enabled), onOrOff(young->policy.enabled));
        compareTexts(
            ", the default for inbound traffic",
            rawValue(old->policy.defaultInbound),
            rawValue(young->policy.defaultInbound));
        compareTexts(
            ", the default for outbound traffic",
            rawValue(old->policy.defaultOutbound),
            rawValue(young->policy.defaultOutbound));
        compareRules(old->policy.rules, young->policy.rules);
    }

    void compareTexts(const char* what, const std::string& old, const std::string& young) {
        if (old != young) {
            add(std::string(what) + ": " + old + " -> " + young);
        }
    }

    void compareRules(
        const std::vector<FirewallRule>& before, const std::vector<FirewallRule>& now) {
        std::vector<std::size_t> order;
        compareById(
            before,
            now,
            &FirewallRule::id,
            [&](const auto* old, const auto* young, std::size_t was, std::size_t is) {
                if (old == nullptr) {
                    add(", rule " + std::to_string(is + 1) + " is new: " + wordsFor(*young));
                } else if (young == nullptr) {
                    add(", rule " + std::to_string(was + 1) + " is gone: " + wordsFor(*old));
                } else {
                    order.push_back(was);
                    if (*old != *young) {
                        add(", rule " + std::to_string(is + 1) + ": " + wordsFor(*old) + " -> " +
                            wordsFor(*young));
                    }
                }
            });
        if (!std::ranges::is_sorted(order)) {
            add(", its rules have another order");
        }
    }

    static std::string wordsFor(const FirewallRule& rule) {
        return std::string(rawValue(rule.direction)) + ", " + FirewallAnalysis::words(rule) +
               (rule.enabled ? "" : " (off)");
    }

    std::string name_;
    std::vector<std::string> found_;
};

using Lines = std::vector<std::string>;

/// Appends the lines that go and come, by the longest common subsequence.
void appendChangedLines(Lines& out, const Lines& before, const Lines& now) {
    // Beyond this, all lines between the first and the last that differ count as changed.
    constexpr std::size_t maxCells = 4'000'000;
    std::size_t begin = 0;
    std::size_t oldEnd = before.size();
    std::size_t newEnd = now.size();
    while (begin < oldEnd && begin < newEnd && before[begin] == now[begin]) {
        ++begin;
    }
    while (begin < oldEnd && begin < newEnd && before[oldEnd - 1] == now[newEnd - 1]) {
        --oldEnd;
        --newEnd;
    }
    const std::size_t rows = oldEnd - begin;
    const std::size_t columns = newEnd - begin;
    std::vector<std::uint32_t> common;
    const bool isExact = rows == 0 || columns < maxCells / rows;
    const auto at = [&](std::size_t row, std::size_t column) -> std::uint32_t& {
        return common[row * (columns + 1) + column];
    };
    if (isExact) {
        common.resize((rows + 1) * (columns + 1));
        for (std::size_t i = rows; i-- > 0;) {
            for (std::size_t j = columns; j-- > 0;) {
                at(i, j) = before[begin + i] == now[begin + j]
                               ? at(i + 1, j + 1) + 1
                               : std::max(at(i + 1, j), at(i, j + 1));
            }
        }
    }
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < rows || j < columns) {
        if (i < rows && j < columns && before[begin + i] == now[begin + j]) {
            ++i;
            ++j;
        } else if (i < rows && (j == columns || !isExact || at(i + 1, j) >= at(i, j + 1))) {
            out.push_back("- " + before[begin + i++]);
        } else {
            out.push_back("+ " + now[begin + j++]);
        }
    }
}

/// The lines of both rulesets, network by network.
Lines changedLines(const NamedRuleset& before, const NamedRuleset& now) {
    std::map<std::string, std::pair<Lines, Lines>> bySubnet;
    const auto collect = [&](const NamedRuleset& rules, Lines std::pair<Lines, Lines>::*side) {
        for (std::size_t i = 0; i < rules.ruleset().networks.size(); ++i) {
            bySubnet[text(rules.ruleset().networks[i].subnet)].*side = rules.lineTexts(i);
        }
    };
    collect(before, &std::pair<Lines, Lines>::first);
    collect(now, &std::pair<Lines, Lines>::second);
    Lines changed;
    for (const auto& [subnet, lines] : bySubnet) {
        appendChangedLines(changed, lines.first, lines.second);
    }
    return changed;
}

/// What people call the addresses of a part: the network's name if they are all of it.
std::string nameOf(const GovernedPart& part, const NamedRuleset& before, const NamedRuleset& now) {
    const NamedRuleset& rules = part.now ? now : before;
    const std::size_t network = part.now ? *part.now : part.before.value();
    const FirewallAnalysis::Region whole{
        .prefix = rules.ruleset().networks.at(network).subnet, .except = {}};
    return part.addresses == std::vector{whole} ? rules.networkName(network)
                                                : FirewallAnalysis::words(part.addresses);
}

std::string decider(
    const NamedRuleset& rules,
    std::optional<std::size_t> network,
    std::optional<std::size_t> line) {
    return network && line ? rules.wordsOf(*network, *line) : "no line at all";
}

Lines changedPackets(const NamedRuleset& before, const NamedRuleset& now) {
    Lines changed;
    for (const GovernedPart& part : governedParts(before.ruleset(), now.ruleset())) {
        const auto linesOf = [](const NamedRuleset& rules, std::optional<std::size_t> network) {
            return network ? &rules.ruleset().networks.at(*network) : nullptr;
        };
        const std::string local = nameOf(part, before, now);
        for (const PacketChange& change :
             FirewallAnalysis::changes(linesOf(before, part.before), linesOf(now, part.now))) {
            const std::string remote = FirewallAnalysis::words(change.remotes);
            const bool isIn = change.direction == Direction::in;
            changed.push_back(
                packetWords(change) + " from " + (isIn ? local : remote) + " to " +
                (isIn ? remote : local) +
                (change.passes ? ": blocked -> passed, by " : ": passed -> blocked, by ") +
                decider(now, part.now, change.now) + "; before by " +
                decider(before, part.before, change.before));
        }
    }
    return changed;
}

void printPart(const char* heading, const Lines& lines, const Console& console) {
    if (lines.empty()) {
        return;
    }
    console.output << console.inked(Ink::bold, heading) << '\n';
    for (const std::string& line : lines) {
        writeWrapped(console.output, printable(line), 2);
    }
}

/// These are the ruleset's own: they aren't broken.
void printLines(const Lines& lines, const Console& console) {
    if (!lines.empty()) {
        console.output << console.inked(Ink::bold, "Lines") << '\n';
    }
    for (const std::string& line : lines) {
        console.output << "  " << console.inked(line.front() == '-' ? Ink::red : Ink::green, line)
                       << '\n';
    }
}

void print(const Difference& difference, const Console& console) {
    if (difference.isEmpty()) {
        console.output << "Nothing changes.\n";
        return;
    }
    printPart("Records", difference.records, console);
    printLines(difference.lines, console);
    printPart("Packets", difference.packets, console);
    if (!difference.cut.empty()) {
        printPart(
            "Connections",
            {"An apply cuts all connections of " + FirewallAnalysis::joined(difference.cut) + "."},
            console);
    }
}

/// The lines and packets that change from one list in force to the other.
void compareWhatIsEnforced(
    Difference& result,
    Networks before,
    Networks now,
    std::span<const NetworkFirewall::HostAddress> hosts) {
    const auto oldRules = NamedRuleset::ofList(std::move(before), hosts);
    const auto newRules = NamedRuleset::ofList(std::move(now), hosts);
    result.lines = changedLines(oldRules, newRules);
    result.packets = changedPackets(oldRules, newRules);
}

/// The subnets whose connections an apply cuts, as it decides that itself.
Lines cutBy(const Networks& enforcedBefore, const Networks& enforceable) {
    Lines subnets;
    if (!NetworkFirewall::samePolicies(enforcedBefore, enforceable)) {
        for (const FirewallNetworkPolicy& network : enforceable) {
            if (std::ranges::find(subnets, network.subnetCIDR) == subnets.end()) {
                subnets.push_back(network.subnetCIDR);
            }
        }
    }
    return subnets;
}

}  // namespace

Difference difference(
    const Networks& before,
    const Networks& now,
    std::span<const NetworkFirewall::HostAddress> hosts) {
    Difference result;
    result.records = RecordComparison(before, now).take();
    compareWhatIsEnforced(result, before, now, hosts);
    result.cut = cutBy(
        NetworkFirewall::review(before, hosts).enforceable,
        NetworkFirewall::review(now, hosts).enforceable);
    return result;
}

Difference differenceFromStored(
    const NetworkFirewall::PolicyStore& store,
    const std::string& ownerKey,
    Networks now,
    std::span<const NetworkFirewall::HostAddress> hosts) {
    const auto own = NetworkFirewall::review(std::move(now), hosts);
    auto stored = store;
    const auto previous = NetworkFirewall::setPolicies(
        stored, ownerKey, own.enforceable, support::ReferenceDate::now(), false);

    Difference result;
    result.records = RecordComparison(previous, own.enforceable).take();
    for (const auto& note : own.refused) {
        result.records.push_back(note.label() + " is refused: " + note.problem);
    }
    auto before = NetworkFirewall::mergedPolicies(store);
    auto after = NetworkFirewall::mergedPolicies(std::move(stored));
    for (const auto& claim : after.dropped) {
        if (std::ranges::find(before.dropped, claim) == before.dropped.end()) {
            result.records.push_back(NetworkFirewall::claimMessage(claim.owner, claim.policy));
        }
    }
    compareWhatIsEnforced(result, std::move(before.policies), std::move(after.policies), hosts);
    result.cut = cutBy(previous, own.enforceable);
    return result;
}

int diff(const Session& session) {
    const auto& arguments = session.arguments;
    auto first = NetworkFirewall::decodePolicyData(readPolicyFile(arguments.file));
    const auto hosts = NetworkFirewall::hostAddresses();
    const auto found =
        session.stored ? differenceFromStored(
                             *session.stored, std::to_string(::geteuid()), std::move(first), hosts)
                       : difference(
                             first,
                             NetworkFirewall::decodePolicyData(readPolicyFile(arguments.otherFile)),
                             hosts);
    if (session.console.wantsJson()) {
        session.console.writeResult("difference", found);
    } else {
        print(found, session.console);
    }
    return done;
}

}  // namespace tarnvale::helperctl
