// SPDX-License-Identifier: MIT
//
// How a packet finds its rules. The first rule that matches decides, but a packet is not compared
// with every rule: rules that name a subnet on their key side concern only the packets of that
// subnet, so one lookup of the packet's address leads to them. A ruleset of any shape keeps its
// order, and size and time stay linear in its lines and subnets:
//
// - Each direction is a sequence of steps. A step is either rules for every address or a map from
//   addresses to blocks of rules; a packet that no rule of a step matches goes on to the next.
// - In a map each subnet has one block. Subnets of a map may lie inside each other; addresses of
//   both lead to a path, which goes through their blocks in the order of the lines.
// - A subnet that comes back after the rules of one that it overlaps starts a new map, so that no
//   rule is ever written twice.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <variant>
#include <vector>

#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

/// Consecutive entries of `DirectionPlan::lines`, which are in the order of the lines.
struct Block {
    std::uint32_t begin = 0;
    std::uint32_t end = 0;

    bool operator==(const Block&) const = default;
};

/// Addresses that lead to the same path; both ends belong to it.
struct Interval {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    std::uint32_t path = 0;

    bool operator==(const Interval&) const = default;
};

struct AddressMap {
    std::vector<Block> blocks;  ///< one for each subnet, in the order of their first lines
    /// Path n is that of block n's subnet: its own block and those of the subnets around it.
    std::vector<std::vector<std::uint32_t>> paths;
    std::vector<Interval> intervals;  ///< ascending, disjoint
};

using Step = std::variant<Block, AddressMap>;

struct DirectionPlan {
    std::vector<std::uint32_t> lines;  ///< indices of this direction's rules
    std::vector<Step> steps;
};

struct Dispatch {
    DirectionPlan in;
    DirectionPlan out;
};

Dispatch planDispatch(std::span<const Rule> rules);

/// The addresses as pf's rules see them: after destination, before or after source translation.
struct Flow {
    std::uint8_t protocol = 0;
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
    std::uint16_t sourcePort = 0;
    std::uint16_t destinationPort = 0;
};

/// The index of the rule that decides on the flow's first packet, found as a packet finds it.
std::optional<std::uint32_t> decidingRule(
    std::span<const Rule> rules, const DirectionPlan& plan, Direction direction, const Flow& flow);

/// Whether the rule, whatever its direction, matches the flow's first packet.
bool matches(const Rule& rule, const Flow& flow);

}  // namespace tarnvale::pfctl
