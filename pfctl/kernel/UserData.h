// SPDX-License-Identifier: MIT
//
// What the kernel keeps for us beside the rules. A table carries who made it, an nftables rule the
// line of the ruleset that it is part of, so the tables themselves say which ruleset they hold. By
// what its counters carry, the next load knows what it need not write again.

#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "netlink/Messages.h"
#include "pfctl/kernel/Fingerprint.h"
#include "pfctl/language/CountedRule.h"
#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

/// The bytes of a rule, without the header that user data has.
using PackedRule = std::array<std::uint8_t, 23>;

PackedRule packed(const Rule& rule);

/// Nothing when the bytes are not those of a rule.
std::optional<Rule> unpackedRule(std::span<const std::uint8_t> bytes);

/// What a table carries. nft lists it as the table's comment.
std::vector<std::uint8_t> loaderUserData(const Loader& loader);

/// Who loaded the table with that user data; nothing when the table is not one of ours.
std::optional<Loader> loaderFromUserData(netlink::Bytes userData);

/// A line of the ruleset, as its rules carry it.
struct NumberedRule {
    std::uint64_t index = 0;  ///< the greater, the later in the ruleset
    Rule rule;
};

/// The kind of value, its length, the line's number, the rule.
using LineUserData = std::array<std::uint8_t, 2 + sizeof(std::uint64_t) + PackedRule().size()>;

LineUserData lineUserData(const NumberedRule& line);

/// Nothing when the user data is not that of a line.
std::optional<NumberedRule> ruleFromUserData(netlink::Bytes userData);

/// The load that a table's rules come from.
struct LoadRecord {
    Loader loader;
    std::uint32_t generation = 0;  ///< the kernel's when the load was done
    FingerprintKey key{};          ///< of the fingerprints in the table
    Fingerprint shape{};           ///< of everything but the lines

    bool operator==(const LoadRecord&) const = default;
};

/// The kind of value, its length, and the record's members.
using LoadUserData = std::array<
    std::uint8_t,
    2 + 3 * sizeof(std::uint32_t) + FingerprintKey().size() + Fingerprint().size()>;

LoadUserData loadUserData(const LoadRecord& load);

/// Nothing when the user data is not that of a load.
std::optional<LoadRecord> loadFromUserData(netlink::Bytes userData);

/// The kind of value, its length, and the fingerprint of a block's lines.
using BlockUserData = std::array<std::uint8_t, 2 + Fingerprint().size()>;

BlockUserData blockUserData(const Fingerprint& lines);

/// Nothing when the user data is not that of a block.
std::optional<Fingerprint> blockFromUserData(netlink::Bytes userData);

}  // namespace tarnvale::pfctl
