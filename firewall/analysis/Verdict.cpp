// SPDX-License-Identifier: MIT

#include "firewall/analysis/Verdict.h"

#include <algorithm>

namespace tarnvale::FirewallAnalysis {

namespace {

constexpr Address limitedBroadcast = ~Address{0};
constexpr AddressRange multicast{.first = 0xE0000000, .last = 0xEFFFFFFF};

/// Whether all on the link get it, the host too, and nobody sends it on.
bool isForTheLink(const Ruleset& ruleset, Address source, Address destination) {
    if (destination == limitedBroadcast || multicast.contains(destination)) {
        return true;
    }
    const auto network = governingNetwork(ruleset, source);
    return network && destination == ruleset.networks[*network].subnet.last;
}

Way wayOf(const Ruleset& ruleset, Address source, Address destination) {
    const bool fromHost = isHost(ruleset, source);
    const bool toHost = isHost(ruleset, destination);
    if (fromHost) {
        return toHost ? Way::overLoopback : Way::fromHost;
    }
    if (toHost || isForTheLink(ruleset, source, destination)) {
        return Way::toHost;
    }
    const auto network = governingNetwork(ruleset, source);
    return network && network == governingNetwork(ruleset, destination) ? Way::insideNetwork
                                                                        : Way::throughHost;
}

std::vector<Direction> directionsOf(Way way) {
    switch (way) {
        case Way::overLoopback:
            return {Direction::out, Direction::in};
        case Way::fromHost:
            return {Direction::out};
        case Way::toHost:
            return {Direction::in};
        case Way::throughHost:
            return {Direction::in, Direction::out};
        case Way::ipv6:
        case Way::insideNetwork:
            break;
    }
    return {};
}

}  // namespace

bool Verdict::passes() const {
    return std::ranges::all_of(crossings, &Crossing::passes);
}

const Crossing* Verdict::deciding() const {
    const Crossing* deciding = nullptr;
    for (const Crossing& crossing : crossings) {
        if (crossing.line) {
            deciding = &crossing;
        }
        if (!crossing.passes) {
            break;
        }
    }
    return deciding;
}

bool isHost(const Ruleset& ruleset, Address address) {
    return std::ranges::find(ruleset.hostAddresses, address) != ruleset.hostAddresses.end();
}

std::optional<std::size_t> governingNetwork(const Ruleset& ruleset, Address address) {
    const auto found = std::ranges::find_if(ruleset.networks, [&](const NetworkLines& network) {
        return network.subnet.contains(address);
    });
    return found == ruleset.networks.end()
               ? std::nullopt
               : std::optional(static_cast<std::size_t>(found - ruleset.networks.begin()));
}

Verdict judge(const Ruleset& ruleset, const Packet& packet) {
    Verdict verdict;
    if (packet.isIPv6()) {
        verdict.way = Way::ipv6;
        return verdict;
    }
    const Address source = packet.source.address.value();
    const Address destination = packet.destination.address.value();
    verdict.way = wayOf(ruleset, source, destination);
    for (const Direction direction : directionsOf(verdict.way)) {
        const bool isIn = direction == Direction::in;
        Crossing crossing{
            .direction = direction,
            .network = governingNetwork(ruleset, isIn ? source : destination),
            .line = {}};
        if (crossing.network) {
            const NetworkLines& network = ruleset.networks[*crossing.network];
            crossing.line = decidingLine(
                network,
                direction,
                packet.kind(direction),
                isIn ? destination : source,
                packet.destination.port.value_or(0));
            crossing.passes = !crossing.line || network.lines[*crossing.line].passes;
        }
        verdict.crossings.push_back(crossing);
    }
    return verdict;
}

}  // namespace tarnvale::FirewallAnalysis
