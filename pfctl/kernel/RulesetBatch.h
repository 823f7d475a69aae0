// SPDX-License-Identifier: MIT
//
// What the kernel is told: the messages that make a ruleset an nftables table. One table per
// anchor, family ip, named as the anchor:
//
//     chain in        hook prerouting, after destination translation, as pf's rules see addresses:
//                     passes packets of flows that have a state, then goes through the steps of the
//                     dispatch: "jump in.N", or for each size of network that a map has,
//                     "ip saddr & MASK vmap @in.map.N"
//     chain in.N      the rules of one block, and at its end a counter of the packets that none of
//                     them matched
//     chain in.path.N the blocks for the addresses of a network that lies inside another
//     chain in.pass   gives the flow its state and accepts
//
// and the same for "out", on the hook postrouting after source translation. Each rule carries its
// line, and the line's number, as user data, so the table itself says which ruleset it holds.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "pfctl/kernel/Dispatch.h"
#include "pfctl/kernel/Netlink.h"
#include "pfctl/language/CountedRule.h"
#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

struct RulesetTable {
    std::string_view anchor;
    std::span<const Rule> rules;
    Loader loader;
    bool dormant = false;  ///< loaded, but not enforced
    /// How far behind the first place on the hooks the chains stand: behind those of the table that
    /// is replaced, so that a packet which has just been let off by the old rules meets the new.
    std::int32_t place = 0;
};

/// The priority of the chain "in" at the first place: behind destination translation.
inline constexpr std::int32_t firstPlaceIn = -100 + 10;

/// A transaction that replaces the anchor's table, whether there is one or not. In each of the
/// three transactions the last message before the end asks for an acknowledgement.
void writeReplacement(MessageWriter& messages, const RulesetTable& table);

/// A transaction that removes the anchor's table, which there must be.
void writeRemoval(MessageWriter& messages, std::string_view anchor);

/// A transaction by which dormant tables are enforced.
void writeAwakening(MessageWriter& messages, std::span<const std::string> anchors);

/// Who loaded the table with that user data; nothing when the table is none of ours.
std::optional<Loader> loaderFromUserData(Bytes userData);

/// A line as its rules carry it.
struct NumberedRule {
    std::uint32_t index = 0;
    Rule rule;
};

/// Nothing when the user data is not that of a line.
std::optional<NumberedRule> ruleFromUserData(Bytes userData);

}  // namespace tarnvale::pfctl
