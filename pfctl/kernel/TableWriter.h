// SPDX-License-Identifier: MIT
//
// The messages that make a ruleset an nftables table. One table per anchor (while a load is under
// way two: NftablesBackend.h), family ip:
//
//     chain in        hook prerouting, after destination translation, as pf's rules see addresses:
//                     passes packets of flows that have a state, then goes through the steps of the
//                     dispatch: "jump in.N", or for each size of subnet that a map has,
//                     "ip saddr & MASK vmap @in.map.N"
//     chain in.N      counts its packets with the table's counter of the same name, then has the
//                     rules of one block, and at its end a counter of the packets that none of them
//                     matched
//     chain in.path.N the blocks for the addresses of a subnet that lies inside another
//     chain in.pass   gives the flow its state and accepts
//
// and the same for "out", on the hook postrouting after source translation. Before them, the chains
// "came", on the hook prerouting, and "sent", on the hook output, take from an expected connection
// the state that it has inherited. Each rule carries its line as user data (UserData.h), the
// counter of a block the fingerprint of its lines, and a counter "loaded.GENERATION" the load that
// all this comes from.
//
// By these a load finds the blocks that it has to write again: those with other lines than before,
// and those that packets came to, because the counters of a ruleset begin at zero. All others stay
// as they are. ("nft reset counters" sets the tables' counters to zero, but not those of the rules,
// and is no transaction. A load can't see it.) A packet that meets a transaction meets each chain
// either as it was or as it will be. So it meets one of the rulesets whole if it comes to one block
// at most, and only such a ruleset is changed in this way.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "netlink/Messages.h"
#include "pfctl/kernel/Fingerprint.h"
#include "pfctl/kernel/UserData.h"
#include "pfctl/language/CountedRule.h"
#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

struct RulesetTable {
    std::string name;
    std::span<const Rule> rules;
    Loader loader;
    bool dormant = false;          ///< loaded, but not enforced
    std::uint32_t generation = 0;  ///< the kernel's when the load is done
    FingerprintKey key{};
};

/// What a table says of its rules.
struct TableRecord {
    struct BlockRecord {
        Fingerprint lines{};
        bool hasCounted = false;
    };

    LoadRecord load;
    std::vector<std::string> loadCounters;                ///< the last one carries the load
    std::unordered_map<std::string, BlockRecord> blocks;  ///< by their chains
};

/// A transaction that replaces the table of that name, whether there is one or not. In each of the
/// four transactions the last message before the end asks for an acknowledgement.
void writeReplacement(netlink::MessageWriter& messages, const RulesetTable& table);

/// A transaction that gives the table these rules, if it holds what the record says. Returns how
/// many blocks it writes; nothing when it can't be done with blocks alone.
std::optional<std::size_t> writeChange(
    netlink::MessageWriter& messages, const RulesetTable& table, const TableRecord& before);

/// A transaction that removes tables, which must exist.
void writeRemoval(netlink::MessageWriter& messages, std::span<const std::string> tables);

/// A transaction that puts dormant tables into force.
void writeActivation(netlink::MessageWriter& messages, std::span<const std::string> tables);

}  // namespace tarnvale::pfctl
