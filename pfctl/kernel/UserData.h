// SPDX-License-Identifier: MIT
//
// What the kernel keeps for us beside the rules. A table carries who loaded it, an nftables rule
// the line of the ruleset that it is part of, so the tables themselves say which ruleset they hold.

#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "netlink/Messages.h"
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
    std::uint32_t index = 0;
    Rule rule;
};

/// The kind of value, its length, the line's number, the rule.
using LineUserData = std::array<std::uint8_t, 2 + sizeof(std::uint32_t) + PackedRule().size()>;

LineUserData lineUserData(const NumberedRule& line);

/// Nothing when the user data is not that of a line.
std::optional<NumberedRule> ruleFromUserData(netlink::Bytes userData);

}  // namespace tarnvale::pfctl
