// SPDX-License-Identifier: MIT
//
// The messages that make a ruleset an nftables table. One table per anchor, family ip, named as the
// anchor:
//
//     chain in        hook prerouting, after destination translation, as pf's rules see addresses:
//                     passes packets of flows that have a state, then goes through the steps of the
//                     dispatch: "jump in.N", or for each size of subnet that a map has,
//                     "ip saddr & MASK vmap @in.map.N"
//     chain in.N      the rules of one block, and at its end a counter of the packets that none of
//                     them matched
//     chain in.path.N the blocks for the addresses of a subnet that lies inside another
//     chain in.pass   gives the flow its state and accepts
//
// and the same for "out", on the hook postrouting after source translation. Each rule carries its
// line as user data (UserData.h).

#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "netlink/Messages.h"
#include "pfctl/language/CountedRule.h"
#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

struct RulesetTable {
    std::string anchor;
    std::span<const Rule> rules;
    Loader loader;
    bool dormant = false;  ///< loaded, but not enforced
    /// Offset added to the hook priority, so that the new chains run after those they replace: a
    /// packet that the old rules have just let pass meets the new ones.
    std::int32_t place = 0;
};

/// The priority of the chain "in" at place 0: just after destination translation.
inline constexpr std::int32_t firstPlaceIn = -100 + 10;

/// A transaction that replaces the anchor's table, whether there is one or not. In each of the
/// three transactions the last message before the end asks for an acknowledgement.
void writeReplacement(netlink::MessageWriter& messages, const RulesetTable& table);

/// A transaction that removes the anchor's table, which must exist.
void writeRemoval(netlink::MessageWriter& messages, const std::string& anchor);

/// A transaction that puts dormant tables into force.
void writeActivation(netlink::MessageWriter& messages, std::span<const std::string> anchors);

}  // namespace tarnvale::pfctl
