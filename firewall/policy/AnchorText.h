// SPDX-License-Identifier: MIT
//
// Writes the pf ruleset that the helper loads into its anchor. Rules take the host's side of the
// virtual networks' bridges: traffic to the machines leaves the host ("out"), traffic from them
// enters it ("in"). Every line is "quick", so an earlier line takes precedence over a later one.

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

/// The one or two lines for a rule of the network on the canonical `subnet`; none if the rule's
/// texts don't parse. Ignores whether the rule is enabled: the caller has decided that.
std::vector<std::string> ruleLines(const FirewallRule& rule, std::string_view subnet);

}  // namespace tarnvale::NetworkFirewall
