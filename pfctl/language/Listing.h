// SPDX-License-Identifier: MIT
//
// What pfctl prints, in the forms of pf's own tool. Rules are listed as pf does without its
// optimizer: every line, in its order, in pf's own words.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "pfctl/language/CountedRule.h"
#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

/// Appends the rule's line as pf lists it.
void appendCanonicalLine(std::string& out, const Rule& rule);

/// Appends the rule's line and the two lines of counters below it.
void appendCountedRule(
    std::string& out, const CountedRule& rule, std::uint64_t states, const Loader& loader);

/// The status summary. `enabledFor` is in seconds, nothing when pf is disabled.
std::string statusSummary(std::optional<std::uint64_t> enabledFor, std::uint64_t states);

}  // namespace tarnvale::pfctl
