// SPDX-License-Identifier: MIT
//
// What becomes of one packet, and which line decides: where it meets pf, and the first line that
// matches there.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "firewall/analysis/Lines.h"
#include "firewall/analysis/Packet.h"

namespace tarnvale::FirewallAnalysis {

/// Everything that the anchor holds, and who is the host.
struct Ruleset {
    std::vector<NetworkLines> networks;  ///< in the order of the anchor
    std::vector<Address> hostAddresses;  ///< the gateways, too
};

/// How a packet meets pf.
enum class Way : std::uint8_t {
    ipv6,           ///< no line is about it
    insideNetwork,  ///< two machines of one network: the bridge switches it
    overLoopback,   ///< the host to itself: "out", then "in"
    fromHost,       ///< only "out"
    toHost,         ///< only "in"; broadcasts and multicasts too
    throughHost,    ///< "in", then "out"
};

/// One look of pf at a packet. Without a line that matches, the packet passes.
struct Crossing {
    Direction direction = Direction::in;
    std::optional<std::size_t> network;  ///< whose lines are looked at, by its place
    std::optional<std::size_t> line;     ///< that decides, by its place there
    bool passes = true;

    bool operator==(const Crossing&) const = default;
};

struct Verdict {
    Way way = Way::throughHost;
    std::vector<Crossing> crossings;  ///< in order, also those behind one that blocks

    bool passes() const;

    /// The crossing that decides: the first one that blocks, else the last one with a line.
    const Crossing* deciding() const;
};

/// Whether this is one of the host's addresses.
bool isHost(const Ruleset& ruleset, Address address);

/// The first network of the anchor with this address: each network has lines that match everything
/// of its subnet, so no later one is asked. Nothing if there is none.
std::optional<std::size_t> governingNetwork(const Ruleset& ruleset, Address address);

Verdict judge(const Ruleset& ruleset, const Packet& packet);

}  // namespace tarnvale::FirewallAnalysis
