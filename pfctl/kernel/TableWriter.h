// SPDX-License-Identifier: MIT
//
// The messages that make a ruleset an nftables table. One table per anchor (while a load is under
// way two: NftablesBackend.h), family ip:
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
// and the same for "out", on the hook postrouting after source translation. Before them, the chains
// "came", on the hook prerouting, and "sent", on the hook output, take from an expected connection
// the state that it has inherited. Each rule carries its line as user data (UserData.h).

#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "netlink/Messages.h"
#include "pfctl/language/CountedRule.h"
#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

struct RulesetTable {
    std::string name;
    std::span<const Rule> rules;
    Loader loader;
    bool dormant = false;  ///< loaded, but not enforced
};

/// A transaction that replaces the table of that name, whether there is one or not. In each of the
/// three transactions the last message before the end asks for an acknowledgement.
void writeReplacement(netlink::MessageWriter& messages, const RulesetTable& table);

/// A transaction that removes tables, which must exist.
void writeRemoval(netlink::MessageWriter& messages, std::span<const std::string> tables);

/// A transaction that puts dormant tables into force.
void writeActivation(netlink::MessageWriter& messages, std::span<const std::string> tables);

}  // namespace tarnvale::pfctl
