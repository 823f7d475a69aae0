// SPDX-License-Identifier: MIT
//
// The anchors as the kernel has them: which there are, what they hold, and their replacement.
//
// An anchor's table has the anchor's name or that with a "/" behind it, with which no anchor's name
// ends. A load puts the new rules into force under the free one of the two names, waits until no
// packet is under way that has not met them, and then removes the old ones. So every packet meets
// one of the two rulesets whole. One transaction for both would let packets through: one that was
// already on its way would not find the new chains, and would find the old ones empty.
//
// A transaction may be done although the kernel's answer to it is lost, for want of memory. Then a
// look at the tables tells. The new rules are taken back only where the old ones are known to be
// there still. The next load completes what a killed one, or one without answers, has left.
//
// While both are there the new rules decide. Of chains of equal priority the kernel asks the newest
// first, and the old ones let a packet pass to which the new ones gave a state.
//
// Where only lines of known networks differ, a load changes the blocks of these in their table
// instead (TableWriter.h). What the table says of itself holds as long as nobody has made another
// transaction, so the number of those is part of it.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "netlink/Socket.h"
#include "pfctl/kernel/TableWriter.h"
#include "pfctl/language/CountedRule.h"

namespace tarnvale::pfctl {

/// A table with rules of an anchor.
struct AnchorTable {
    std::string name;
    Loader loader;
    bool dormant = false;
    std::uint64_t handle = 0;  ///< the newer, the greater
};

struct AnchorContent {
    Loader loader;
    std::vector<CountedRule> rules;  ///< in the order of the lines
};

/// All functions throw `std::system_error`, and `PfctlError` when rules cannot be read.
class NftablesBackend {
public:
    explicit NftablesBackend(netlink::Socket& socket) : socket_(socket) {}

    /// The tables of all anchors, without those of others.
    std::vector<AnchorTable> tables();

    /// The anchor's tables, the newest last; none when it has no rules.
    std::vector<AnchorTable> tables(const std::string& anchor);

    /// Replaces the anchor's rules; without any the anchor ceases to exist. When it throws, either
    /// the old rules are in force or, if the kernel didn't say whether they are gone, the new ones.
    /// Throws `PfctlError` for another program's table of one of the two names, and leaves it
    /// alone.
    void load(const std::string& anchor, RulesetTable table);

    /// Removes the anchor's rules, if it has any.
    void flush(const std::string& anchor);

    /// Puts into force tables that were loaded dormant.
    void activate(std::span<const std::string> tables);

    /// What the anchor holds at one instant; nothing when it has no rules. Throws `PfctlError` when
    /// another program has loaded them: after "nft -f" of a saved ruleset the rules are in force,
    /// but what they carried is lost.
    std::optional<AnchorContent> content(const std::string& anchor);

private:
    /// A table of one of the anchor's two names, whoever made it.
    struct NamedTable {
        std::string name;
        std::optional<AnchorTable> ours;
        bool belongsToAProcess = false;
    };

    bool change(const AnchorTable& old, RulesetTable& table);
    bool isKnownToBeLoaded(const RulesetTable& table) noexcept;
    std::optional<bool> hasAny(
        const std::string& anchor, std::span<const std::string> names) noexcept;
    void completeEarlierLoad(const std::string& anchor, std::vector<AnchorTable>& tables);
    void replace(const std::string& anchor, std::span<const AnchorTable> old, RulesetTable& table);
    std::optional<TableRecord> record(const std::string& table);
    std::vector<NamedTable> namedTables(const std::string& anchor);
    static void requireUnowned(const NamedTable& table);
    void requireReplaceable(const std::string& anchor);
    void requestRemoval(std::span<const std::string> tables);
    void remove(const std::string& anchor, std::span<const std::string> tables);
    void removeIfPossible(const std::string& table) noexcept;
    std::uint32_t generation();
    std::optional<std::vector<std::string>> chains(const std::string& table);
    bool readChain(
        const std::string& table, const std::string& chain, std::vector<CountedRule>& rules);

    netlink::Socket& socket_;
};

}  // namespace tarnvale::pfctl
