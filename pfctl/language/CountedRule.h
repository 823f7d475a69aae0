// SPDX-License-Identifier: MIT
//
// A rule in force, with its counters, and who put it there.

#pragma once

#include <cstdint>

#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

/// Who loaded a ruleset.
struct Loader {
    std::uint32_t uid = 0;
    std::uint32_t pid = 0;

    bool operator==(const Loader&) const = default;
};

/// A line with the packets that it decided on. Those that passed by a state count nowhere.
struct CountedRule {
    std::uint64_t index = 0;  ///< the greater, the later in the ruleset
    Rule rule;
    std::uint64_t evaluations = 0;  ///< packets that came to this line
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
};

}  // namespace tarnvale::pfctl
