// SPDX-License-Identifier: MIT
//
// The text of the pf ruleset that the helper loads into its anchor. It is written from the host's
// side of the virtual networks' bridges: what goes to the machines leaves the host ("out"), what
// comes from them enters it ("in"). Every line is "quick", so the order of lines is precedence.

#pragma once

#include <chrono>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/policy/FirewallRecords.h"

namespace tarnvale::NetworkFirewall {

/// The anchor that holds the helper's rules, below the system's own "com.apple".
inline constexpr std::string_view anchorName = "com.apple/900.tarnvale.firewall";

/// The whole ruleset for the networks, in their order, ending in a line feed. Skips networks that
/// are off or whose subnet has no canonical form. The first line states `generatedAt`.
std::string anchorText(
    std::span<const FirewallNetworkPolicy> policies,
    std::chrono::system_clock::time_point generatedAt);

/// The lines for one rule of the network on the canonical `subnet`: none when the rule's texts
/// don't parse, else one or two. Whether the rule is enabled is the caller's business.
std::vector<std::string> ruleLines(const FirewallRule& rule, std::string_view subnet);

}  // namespace tarnvale::NetworkFirewall
