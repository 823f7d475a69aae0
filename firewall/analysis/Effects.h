// SPDX-License-Identifier: MIT
//
// What each rule of a network does: whether it ever decides, and whether that changes anything.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "firewall/analysis/Lines.h"

namespace tarnvale::FirewallAnalysis {

/// A rule without which nothing would change.
struct IdleRule {
    enum class Reason : std::uint8_t {
        shadowed,   ///< earlier lines take all packets that it matches
        redundant,  ///< it decides, but so would what follows
    };

    std::size_t number = 0;  ///< counted from 1
    Reason reason = Reason::shadowed;

    /// The lines that take its packets, or that would decide in its place, by their places. One
    /// line if one is enough.
    std::vector<std::size_t> lines;

    bool operator==(const IdleRule&) const = default;
};

/// The rules that could all be removed at once without any packet's verdict changing, in order. A
/// rule that only one of them makes idle isn't among them.
std::vector<IdleRule> idleRules(const NetworkLines& network);

}  // namespace tarnvale::FirewallAnalysis
