// SPDX-License-Identifier: MIT
//
// The packets that two lists of networks treat differently, exactly and as few sets as say it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "firewall/analysis/Faces.h"
#include "firewall/analysis/Lines.h"
#include "firewall/analysis/Verdict.h"

namespace tarnvale::FirewallAnalysis {

/// A prefix without some narrower ones.
struct Region {
    AddressRange prefix;
    std::vector<AddressRange> except;

    bool operator==(const Region&) const = default;
    bool contains(Address address) const;
};

/// The addresses of these faces, in as few regions as prefixes allow. `isIn` says of each face
/// whether it is meant; of empty ones it says nothing.
std::vector<Region> regionsOf(std::span<const Face> faces, const std::vector<bool>& isIn);

/// Packets whose verdict changes, and for the same reason. Each combination of a kind, a remote and
/// a port is one.
struct PacketChange {
    Direction direction = Direction::in;
    Kinds kinds;
    std::vector<PortRange> ports;
    bool isButDhcp = false;  ///< what the DHCP line is about isn't among them
    std::vector<Region> remotes;
    bool passes = false;                ///< now; before it was the opposite
    std::optional<std::size_t> before;  ///< the line that decided, by its place; none: no line did
    std::optional<std::size_t> now;

    bool matches(Kind kind, Address remote, std::uint16_t port) const;
};

/// What changes for a network's packets. Null stands for no lines at all: everything passes.
std::vector<PacketChange> changes(const NetworkLines* before, const NetworkLines* now);

/// Addresses that one network governs before and one now.
struct GovernedPart {
    std::vector<Region> addresses;
    std::optional<std::size_t> before;  ///< the network, by its place in the ruleset
    std::optional<std::size_t> now;
};

/// All addresses of networks in either ruleset, by who governs them.
std::vector<GovernedPart> governedParts(const Ruleset& before, const Ruleset& now);

}  // namespace tarnvale::FirewallAnalysis
