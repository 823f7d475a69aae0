// SPDX-License-Identifier: MIT
//
// What applying a list results in on one machine: which of its networks are enforced, and in
// which order the anchor has them. The helper's own review decides.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "firewall/analysis/Verdict.h"
#include "firewall/policy/FirewallRecords.h"
#include "platform/HostAddresses.h"

namespace tarnvale::FirewallAnalysis {

/// One network of a list.
struct ReviewedNetwork {
    enum class Standing : std::uint8_t {
        enforced,
        off,      ///< its firewall is disabled
        refused,  ///< `problem` says why
        claimed,  ///< the one at `claimedBy` has the same subnet and comes earlier
    };

    NetworkFirewall::FirewallNetworkPolicy policy;  ///< subnet and gateway canonical if enforced
    std::string writtenSubnet;                      ///< as they were before
    std::optional<std::string> writtenGateway;
    Standing standing = Standing::enforced;
    std::string problem;
    std::size_t claimedBy = 0;
};

struct EnforcedList {
    std::vector<ReviewedNetwork> networks;  ///< all, in the list's order
    Ruleset ruleset;
    std::vector<std::size_t> places;  ///< of the ruleset's networks in `networks`
};

/// Reviews the list as an apply of a user does who is alone on a machine with these addresses.
EnforcedList enforcedList(
    std::vector<NetworkFirewall::FirewallNetworkPolicy> list,
    std::span<const NetworkFirewall::HostAddress> hosts);

}  // namespace tarnvale::FirewallAnalysis
