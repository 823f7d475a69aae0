// SPDX-License-Identifier: MIT
//
// InputBytes as what users apply one after the other, and on what machine. The store, the merge,
// its claims, the review and the ruleset's verdict on packets are compared with a model that is
// slow and plain: it looks everything up in tables, where each text stands beside what it means.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "firewall/policy/AnchorText.h"
#include "firewall/policy/PolicyStore.h"
#include "firewall/policy/Problems.h"
#include "firewall/policy/Review.h"
#include "pfctl/kernel/Dispatch.h"
#include "pfctl/language/RulesetParser.h"
#include "tests/fuzz/InputBytes.h"
#include "tests/fuzz/Require.h"
#include "tests/support/PacketFilterModel.h"

namespace tarnvale::NetworkFirewall {

namespace {

using test::InputBytes;
using test::require;
using Networks = std::vector<FirewallNetworkPolicy>;

constexpr std::uint32_t address(unsigned a, unsigned b, unsigned c, unsigned d) {
    return a << 24U | b << 16U | c << 8U | d;
}

/// Addresses or ports; both ends belong to it.
struct Range {
    std::uint32_t first = 0;
    std::uint32_t last = 0;

    bool contains(std::uint32_t number) const { return first <= number && number <= last; }
    bool overlaps(const Range& other) const { return first <= other.last && other.first <= last; }
};

/// A text, and what it means; nothing if it is refused.
struct Meaning {
    std::string_view text;
    std::optional<Range> range;
    std::string_view canonical;
};

constexpr std::uint32_t everyAddress = 0xFFFFFFFF;
constexpr std::uint32_t everyPort = 0xFFFF;
constexpr Range lab{address(192, 168, 64, 0), address(192, 168, 64, 255)};

constexpr std::array subnets = {
    Meaning{"192.168.64.0/24", lab, "192.168.64.0/24"},
    Meaning{"192.168.64.9/24", lab, "192.168.64.0/24"},
    Meaning{" 192.168.64.0/24 ", lab, "192.168.64.0/24"},
    Meaning{
        "192.168.64.128/25",
        Range{address(192, 168, 64, 128), address(192, 168, 64, 255)},
        "192.168.64.128/25"},
    Meaning{
        "192.168.65.0/24",
        Range{address(192, 168, 65, 0), address(192, 168, 65, 255)},
        "192.168.65.0/24"},
    Meaning{
        "192.168.70.1/20",
        Range{address(192, 168, 64, 0), address(192, 168, 79, 255)},
        "192.168.64.0/20"},
    Meaning{
        "192.168.0.4/30",
        Range{address(192, 168, 0, 4), address(192, 168, 0, 7)},
        "192.168.0.4/30"},
    Meaning{"192.168.0.0/16", std::nullopt, ""},
    Meaning{"192.168.64.0/31", std::nullopt, ""},
    Meaning{"10.0.0.0/24", std::nullopt, ""},
    Meaning{"192.168.64.0", std::nullopt, ""},
    Meaning{"", std::nullopt, ""}};

constexpr std::array gateways = {
    Meaning{
        "192.168.64.1", Range{address(192, 168, 64, 1), address(192, 168, 64, 1)}, "192.168.64.1"},
    Meaning{
        "192.168.64.0", Range{address(192, 168, 64, 0), address(192, 168, 64, 0)}, "192.168.64.0"},
    Meaning{
        "192.168.65.255",
        Range{address(192, 168, 65, 255), address(192, 168, 65, 255)},
        "192.168.65.255"},
    Meaning{"192.168.64.1 ", std::nullopt, ""},
    Meaning{"gateway", std::nullopt, ""}};

constexpr std::array remotes = {
    Meaning{"any", Range{0, everyAddress}, ""},
    Meaning{"", Range{0, everyAddress}, ""},
    Meaning{"10.0.0.0/8", Range{address(10, 0, 0, 0), address(10, 255, 255, 255)}, ""},
    Meaning{" 10.1.2.3/16", Range{address(10, 1, 0, 0), address(10, 1, 255, 255)}, ""},
    Meaning{"10.1.2.3", Range{address(10, 1, 2, 3), address(10, 1, 2, 3)}, ""},
    Meaning{"192.168.64.1/32", Range{address(192, 168, 64, 1), address(192, 168, 64, 1)}, ""},
    Meaning{"0.0.0.0/0", Range{0, everyAddress}, ""},
    Meaning{"10.0.0.0/33", std::nullopt, ""},
    Meaning{"10.0.0/8", std::nullopt, ""},
    Meaning{"any\npass in quick", std::nullopt, ""}};

/// Without a port, the canonical form is empty.
constexpr std::array ports = {
    Meaning{"", Range{0, everyPort}, ""},
    Meaning{"  ", Range{0, everyPort}, ""},
    Meaning{"53", Range{53, 53}, "53"},
    Meaning{"1-65535", Range{1, everyPort}, "1:65535"},
    Meaning{"67:68", Range{67, 68}, "67:68"},
    Meaning{"443-443", Range{443, 443}, "443:443"},
    Meaning{"0", std::nullopt, ""},
    Meaning{"65536", std::nullopt, ""},
    Meaning{"9-8", std::nullopt, ""},
    Meaning{"http", std::nullopt, ""}};

struct Interface {
    std::string_view name;
    bool isVirtual = false;
    std::array<std::uint8_t, 4> bytes{};
    int prefixLength = 0;
    Range range;
    std::string_view text;
};

constexpr std::array interfaces = {
    Interface{
        "en0",
        false,
        {192, 168, 1, 5},
        24,
        {address(192, 168, 1, 0), address(192, 168, 1, 255)},
        "192.168.1.5"},
    Interface{
        "en1",
        false,
        {192, 168, 64, 7},
        30,
        {address(192, 168, 64, 4), address(192, 168, 64, 7)},
        "192.168.64.7"},
    Interface{"bridge100", true, {192, 168, 64, 1}, 24, lab, "192.168.64.1"},
    Interface{
        "bridge99",
        false,
        {192, 168, 65, 1},
        32,
        {address(192, 168, 65, 1), address(192, 168, 65, 1)},
        "192.168.65.1"},
    Interface{
        "bridge",
        false,
        {192, 168, 0, 6},
        16,
        {address(192, 168, 0, 0), address(192, 168, 255, 255)},
        "192.168.0.6"},
    Interface{"utun3", false, {1, 2, 3, 4}, 0, {0, everyAddress}, "1.2.3.4"}};

// The greater key as a text isn't the greater number.
constexpr std::array<std::string_view, 4> users = {"501", "502", "99", "1000"};
constexpr std::array<double, 4> times = {0, 1, 764'000'000.5, -5};
constexpr std::array<std::string_view, 4> names = {
    "Lab", "", "B\xC3\xBCro \"A\"\n", "\xE2\x80\xA8pass in quick from any to any"};

const Meaning& meaningOf(std::span<const Meaning> table, std::string_view text) {
    return *std::ranges::find(table, text, &Meaning::text);
}

FirewallRule madeRule(InputBytes& bytes) {
    FirewallRule rule;
    rule.enabled = bytes.below(4) > 0;
    rule.direction = bytes.of(FirewallRule::allDirections);
    rule.action = bytes.of(FirewallRule::allActions);
    rule.proto = bytes.of(FirewallRule::allProtos);
    rule.remoteCIDR = bytes.of(remotes).text;
    rule.ports = bytes.of(ports).text;
    return rule;
}

Networks madeNetworks(InputBytes& bytes) {
    Networks networks(bytes.below(4));
    for (FirewallNetworkPolicy& network : networks) {
        network.networkID.bytes[15] = static_cast<std::uint8_t>(bytes.below(4));
        network.name = bytes.of(names);
        network.subnetCIDR = bytes.of(subnets).text;
        if (bytes.flag()) {
            network.gatewayIPv4 = bytes.of(gateways).text;
        }
        network.dnsProxyEnabled = bytes.flag();
        network.policy.enabled = bytes.below(4) > 0;
        network.policy.defaultInbound = bytes.of(FirewallRule::allActions);
        network.policy.defaultOutbound = bytes.of(FirewallRule::allActions);
        network.policy.rules.resize(bytes.below(5));
        for (FirewallRule& rule : network.policy.rules) {
            rule = madeRule(bytes);
        }
    }
    return networks;
}

/// The store as a list in no order.
struct StoredList {
    std::string owner;
    Networks networks;
    double appliedAt = 0;
};
using Lists = std::vector<StoredList>;

StoredList* listOf(Lists& lists, std::string_view owner) {
    const auto list = std::ranges::find(lists, owner, &StoredList::owner);
    return list != lists.end() ? &*list : nullptr;
}

bool haveCommonNetwork(const Networks& some, const Networks& others) {
    for (const auto& one : some) {
        for (const auto& other : others) {
            if (one.networkID == other.networkID) {
                return true;
            }
        }
    }
    return false;
}

Networks apply(
    Lists& lists, std::string_view owner, const Networks& networks, double time, bool atConsole) {
    const StoredList* const own = listOf(lists, owner);
    const StoredList* const legacy = listOf(lists, legacyOwner);
    const bool adopts =
        legacy != nullptr && (atConsole || haveCommonNetwork(legacy->networks, networks));
    const Networks previous = own != nullptr ? own->networks
                              : adopts       ? legacy->networks
                                             : Networks();
    std::erase_if(lists, [&](const StoredList& list) {
        return list.owner == owner || (adopts && list.owner == legacyOwner);
    });
    if (!networks.empty()) {
        lists.push_back({std::string(owner), networks, time});
    }
    return previous;
}

bool isSameStore(const PolicyStore& store, Lists& lists) {
    return store.owners.size() == lists.size() &&
           std::ranges::all_of(store.owners, [&](const auto& owner) {
               const StoredList* const list = listOf(lists, owner.first);
               return list != nullptr && list->networks == owner.second.policies &&
                      list->appliedAt == owner.second.appliedAt.seconds;
           });
}

Networks withID(const Networks& networks, const support::Uuid& id) {
    Networks found;
    std::ranges::copy_if(networks, std::back_inserter(found), [&](const auto& network) {
        return network.networkID == id;
    });
    return found;
}

/// The same networks in any order, but those with the same ID in the same.
bool areSame(const Networks& some, const Networks& others) {
    return some.size() == others.size() && std::ranges::all_of(some, [&](const auto& network) {
               return withID(some, network.networkID) == withID(others, network.networkID);
           });
}

std::string claimed(const FirewallNetworkPolicy& network) {
    const Meaning& subnet = meaningOf(subnets, network.subnetCIDR);
    return std::string(subnet.range ? subnet.canonical : subnet.text);
}

MergedPolicies merged(Lists lists) {
    MergedPolicies result;
    while (!lists.empty()) {
        auto latest = lists.begin();
        for (auto list = lists.begin(); list != lists.end(); ++list) {
            if (list->appliedAt > latest->appliedAt ||
                (list->appliedAt == latest->appliedAt && list->owner > latest->owner)) {
                latest = list;
            }
        }
        for (const auto& network : latest->networks) {
            const bool isTaken = std::ranges::any_of(result.policies, [&](const auto& kept) {
                return claimed(kept) == claimed(network);
            });
            if (isTaken) {
                result.dropped.push_back({latest->owner, network});
            } else {
                result.policies.push_back(network);
            }
        }
        lists.erase(latest);
    }
    return result;
}

void checkClaim(const DroppedClaim& claim) {
    const std::string whose = claim.owner == "legacy" ? "an unowned" : "uid " + claim.owner + "'s";
    require(
        claimMessage(claim.owner, claim.policy) ==
        claim.policy.subnetCIDR + " is claimed by networks of more than one user; " + whose +
            " \"" + claim.policy.name + "\" is left out for the most recently applied one.");
}

/// How the sentence on what is wrong with the subnet begins; empty if nothing is.
std::string subnetComplaint(
    const FirewallNetworkPolicy& network, std::span<const Interface> machine) {
    const Meaning& subnet = meaningOf(subnets, network.subnetCIDR);
    if (!subnet.range) {
        return "the subnet \"" + network.subnetCIDR + "\" isn't one macOS gives";
    }
    for (const Interface& interface : machine) {
        if (!interface.isVirtual && subnet.range->overlaps(interface.range)) {
            return std::string(subnet.canonical) + " overlaps " + std::string(interface.name) +
                   " (" + std::string(interface.text) + "), one of this Mac's own networks";
        }
    }
    return {};
}

/// The same about a rule.
std::string ruleComplaint(const FirewallRule& rule) {
    if (!meaningOf(remotes, rule.remoteCIDR).range) {
        return "\"" + rule.remoteCIDR + "\" isn't an IPv4 address or CIDR";
    }
    if (rule.proto != FirewallRule::Proto::icmp && !meaningOf(ports, rule.ports).range) {
        return "\"" + rule.ports + "\" isn't a port or port range";
    }
    return {};
}

void checkReview(
    const Review& review, const Networks& networks, std::span<const Interface> machine) {
    auto refused = review.refused.begin();
    auto skipped = review.skippedRules.begin();
    auto enforceable = review.enforceable.begin();
    for (const auto& network : networks) {
        if (!network.policy.enabled) {
            continue;
        }
        const std::string complaint = subnetComplaint(network, machine);
        if (!complaint.empty()) {
            require(refused != review.refused.end());
            require(refused->networkID == network.networkID && refused->ruleNumber == 0);
            require(refused->label() == network.name && refused->problem.starts_with(complaint));
            ++refused;
            continue;
        }
        std::size_t number = 0;
        for (const auto& rule : network.policy.rules) {
            ++number;
            const std::string problem = rule.enabled ? ruleComplaint(rule) : "";
            if (!problem.empty()) {
                require(skipped != review.skippedRules.end());
                require(skipped->networkID == network.networkID && skipped->ruleNumber == number);
                require(skipped->label() == network.name + ", rule " + std::to_string(number));
                require(skipped->problem.starts_with(problem));
                ++skipped;
            }
        }
        const Meaning& subnet = meaningOf(subnets, network.subnetCIDR);
        FirewallNetworkPolicy expected = network;
        expected.subnetCIDR = subnet.canonical;
        if (network.gatewayIPv4) {
            const Meaning& gateway = meaningOf(gateways, *network.gatewayIPv4);
            const bool isOnSubnet = gateway.range && subnet.range->overlaps(*gateway.range) &&
                                    gateway.range->first != subnet.range->first;
            expected.gatewayIPv4 =
                isOnSubnet ? std::optional(std::string(gateway.canonical)) : std::nullopt;
        }
        require(enforceable != review.enforceable.end() && *enforceable == expected);
        ++enforceable;
    }
    require(refused == review.refused.end() && skipped == review.skippedRules.end());
    require(enforceable == review.enforceable.end());
}

/// A packet between a machine and the outside; `isOutbound` as in rules.
struct Packet {
    bool isOutbound = false;
    test::Protocol protocol = test::Protocol::tcp;
    std::uint32_t machine = 0;
    std::uint32_t remote = 0;
    std::uint16_t sourcePort = 0;
    std::uint16_t destinationPort = 0;
};

bool concerns(const FirewallRule& rule, const Packet& packet) {
    using Proto = FirewallRule::Proto;
    const bool isOfProtocol =
        rule.proto == Proto::any ||
        (rule.proto == Proto::tcp && packet.protocol == test::Protocol::tcp) ||
        (rule.proto == Proto::udp && packet.protocol == test::Protocol::udp) ||
        (rule.proto == Proto::icmp && packet.protocol == test::Protocol::ping);
    const Meaning& port = meaningOf(ports, rule.ports);
    const bool namesPorts = rule.proto != Proto::icmp && !port.canonical.empty();
    return rule.enabled && ruleComplaint(rule).empty() &&
           (rule.direction == FirewallRule::Direction::outbound) == packet.isOutbound &&
           isOfProtocol && meaningOf(remotes, rule.remoteCIDR).range->contains(packet.remote) &&
           (!namesPorts || (packet.protocol != test::Protocol::ping &&
                            port.range->contains(packet.destinationPort)));
}

/// Whether the networks, which were reviewed, let the packet pass.
bool passes(const Networks& networks, const Packet& packet) {
    for (const auto& network : networks) {
        const auto subnet = std::ranges::find(subnets, network.subnetCIDR, &Meaning::canonical);
        if (!subnet->range->contains(packet.machine)) {
            continue;
        }
        const std::pair addressesAreGiven =
            packet.isOutbound ? std::pair(68, 67) : std::pair(67, 68);
        if (packet.protocol == test::Protocol::udp &&
            std::pair<int, int>(packet.sourcePort, packet.destinationPort) == addressesAreGiven) {
            return true;
        }
        if (packet.isOutbound && network.dnsProxyEnabled && network.gatewayIPv4 &&
            packet.protocol != test::Protocol::ping && packet.destinationPort == 53 &&
            meaningOf(gateways, *network.gatewayIPv4).range->first == packet.remote) {
            return true;
        }
        const auto& policy = network.policy;
        const auto rule = std::ranges::find_if(
            policy.rules, [&](const FirewallRule& each) { return concerns(each, packet); });
        const auto action = rule != policy.rules.end() ? rule->action
                            : packet.isOutbound        ? policy.defaultOutbound
                                                       : policy.defaultInbound;
        return action == FirewallRule::Action::allow;
    }
    return true;
}

Packet madePacket(InputBytes& bytes) {
    const auto endOf = [&](const Meaning& meaning) {
        const Range range = meaning.range.value_or(lab);
        return bytes.flag() ? range.last : range.first;
    };
    Packet packet;
    packet.isOutbound = bytes.flag();
    packet.protocol =
        bytes.of(std::array{test::Protocol::tcp, test::Protocol::udp, test::Protocol::ping});
    packet.machine = endOf(bytes.of(subnets));
    packet.remote = endOf(bytes.flag() ? bytes.of(remotes) : bytes.of(gateways));
    packet.sourcePort = bytes.of(std::array<std::uint16_t, 4>{67, 68, 53, 40000});
    packet.destinationPort =
        bytes.of(std::array<std::uint16_t, 8>{53, 67, 68, 443, 442, 1, 65535, 80});
    if (packet.protocol == test::Protocol::ping) {
        packet.destinationPort = packet.sourcePort;
    }
    return packet;
}

/// What two readers of the ruleset, which share no code, make of the packet.
void checkPacket(
    const Networks& networks,
    const test::PacketFilterModel& readByModel,
    const std::vector<pfctl::Rule>& rules,
    const Packet& packet) {
    const test::Flow flow{
        .protocol = packet.protocol,
        .source = packet.isOutbound ? packet.machine : packet.remote,
        .destination = packet.isOutbound ? packet.remote : packet.machine,
        .sourcePort = packet.sourcePort,
        .destinationPort = packet.destinationPort};
    const bool expected = passes(networks, packet);
    test::PacketFilterModel model = readByModel;
    require(
        model.passes(packet.isOutbound ? test::Direction::in : test::Direction::out, flow) ==
        expected);

    constexpr std::array<std::uint8_t, 3> numbers = {6, 17, 1};
    const pfctl::Flow same{
        .protocol = numbers.at(static_cast<std::size_t>(packet.protocol)),
        .source = flow.source,
        .destination = flow.destination,
        .sourcePort = flow.sourcePort,
        .destinationPort = flow.destinationPort};
    const auto dispatch = pfctl::planDispatch(rules);
    const auto decides = pfctl::decidingRule(
        rules,
        packet.isOutbound ? dispatch.in : dispatch.out,
        packet.isOutbound ? pfctl::Direction::in : pfctl::Direction::out,
        same);
    require((!decides || rules[*decides].action == pfctl::Action::pass) == expected);
}

void check(InputBytes bytes) {
    PolicyStore store;
    Lists lists;
    if (bytes.flag()) {
        if (const Networks old = madeNetworks(bytes); !old.empty()) {
            const auto past = support::ReferenceDate::distantPast();
            store.owners[std::string(legacyOwner)] = {.policies = old, .appliedAt = past};
            lists.push_back({std::string(legacyOwner), old, past.seconds});
        }
    }
    for (std::size_t count = 1 + bytes.below(6); count > 0; --count) {
        const std::string_view owner = bytes.of(users);
        const double time = bytes.of(times);
        const bool atConsole = bytes.below(4) == 0;
        const Networks networks = madeNetworks(bytes);
        const Networks previous = setPolicies(store, owner, networks, {time}, atConsole);
        require(previous == apply(lists, owner, networks, time, atConsole));
        require(isSameStore(store, lists));
        require(samePolicies(previous, networks) == areSame(previous, networks));
    }
    require(decodeStore(encodeStore(store)) == store);
    std::size_t others = 0;
    for (const StoredList& list : lists) {
        others += list.owner == "501" ? 0 : list.networks.size();
    }
    require(otherUsersNetworkCount(store, 501) == others);

    const MergedPolicies result = mergedPolicies(store);
    require(result == merged(lists));
    std::ranges::for_each(result.dropped, checkClaim);

    std::vector<Interface> machine;
    std::vector<HostAddress> hosts{{"en9", std::vector<std::uint8_t>(16, 0xFE), 10}};
    for (std::size_t count = bytes.below(3); count > 0; --count) {
        machine.push_back(bytes.of(interfaces));
        const Interface& last = machine.back();
        hosts.push_back(
            {std::string(last.name), {last.bytes.begin(), last.bytes.end()}, last.prefixLength});
    }
    const Review reviewed = review(result.policies, hosts);
    checkReview(reviewed, result.policies, machine);

    const std::string ruleset = anchorText(reviewed.enforceable, {});
    test::PacketFilterModel model;
    model.load(ruleset);
    const auto parsed = pfctl::parseRuleset(ruleset);
    require(parsed.mistakes.empty());
    while (!bytes.isEmpty()) {
        checkPacket(reviewed.enforceable, model, parsed.rules, madePacket(bytes));
    }
}

}  // namespace

}  // namespace tarnvale::NetworkFirewall

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t maxBytes = 1024;
    tarnvale::NetworkFirewall::check(
        tarnvale::NetworkFirewall::InputBytes({data, std::min(size, maxBytes)}));
    return 0;
}
