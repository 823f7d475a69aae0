// SPDX-License-Identifier: MIT
//
// What in a list of networks doesn't do what its author will think that it does. A finding is a
// fact about every packet; what can't be decided from the list isn't reported.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "firewall/analysis/Enforced.h"

namespace tarnvale::FirewallAnalysis {

/// Errors leave out something that was asked for; warnings make something do less than it says; the
/// rest is good to know.
enum class Severity : std::uint8_t { error, warning, note };

const char* rawValue(Severity severity);

struct Finding {
    const char* code = "";  ///< such as "shadowed"
    Severity severity = Severity::note;
    std::size_t network = 0;     ///< its place in the list
    std::size_t ruleNumber = 0;  ///< counted from 1; 0 for the network itself
    const char* member = "";     ///< the member of the rule or network that it is about, if one is
    std::string message;         ///< whole sentences
};

/// The codes, in the order of the help.
inline constexpr std::array findingCodes{
    "refused",
    "claimed",
    "covered",
    "off",
    "gateway-missing",
    "gateway-dropped",
    "faulty",
    "disabled",
    "shadowed",
    "redundant",
    "overtaken",
    "own-subnet",
    "ports-ignored",
    "host-bits",
    "reachable",
    "ipv6"};

/// The findings, ordered by network and rule.
std::vector<Finding> lint(const EnforcedList& list);

}  // namespace tarnvale::FirewallAnalysis
