// SPDX-License-Identifier: MIT
//
// For tests: a rule of a policy in one line.

#pragma once

#include <string>
#include <utility>

#include "firewall/policy/FirewallRecords.h"

namespace tarnvale::test {

/// A rule that is enabled and has no identifier.
inline NetworkFirewall::FirewallRule rule(
    NetworkFirewall::FirewallRule::Action action,
    NetworkFirewall::FirewallRule::Proto proto,
    std::string remote,
    std::string ports = "",
    NetworkFirewall::FirewallRule::Direction direction =
        NetworkFirewall::FirewallRule::Direction::outbound) {
    return {
        .id = {},
        .enabled = true,
        .direction = direction,
        .action = action,
        .proto = proto,
        .remoteCIDR = std::move(remote),
        .ports = std::move(ports)};
}

}  // namespace tarnvale::test
