// SPDX-License-Identifier: MIT
//
// Decides what the one pf anchor enforces for all users. Merging the users' lists leaves one
// network for each subnet; reviewing the merged list sorts out the networks that may not be
// firewalled and the rules that can't be written.

#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/policy/FirewallRecords.h"
#include "firewall/policy/PolicyStore.h"
#include "platform/HostAddresses.h"
#include "support/Uuid.h"

namespace tarnvale::NetworkFirewall {

/// Reports one refused network, or one rule that is left out.
struct Note {
    support::Uuid networkID;
    /// All notes of one network share it: a network with a long name may have many faulty rules.
    std::shared_ptr<const std::string> networkName;
    std::size_t ruleNumber = 0;  ///< counted from 1; 0 for a note about the network itself
    std::string problem;         ///< the whole sentence

    /// The network's name; for a rule, ", rule " and its number follow.
    std::string label() const;

    /// Compares the names' texts, not where they lie.
    bool operator==(const Note& other) const;
};

struct Review {
    std::vector<FirewallNetworkPolicy> enforceable;  ///< subnet and gateway in canonical form
    std::vector<Note> refused;       ///< enabled networks that may not be firewalled
    std::vector<Note> skippedRules;  ///< enabled rules of those that can't be written

    bool operator==(const Review&) const = default;
};

/// A network that the merge left out, because another one holds its subnet.
struct DroppedClaim {
    std::string owner;
    FirewallNetworkPolicy policy;

    bool operator==(const DroppedClaim&) const = default;
};

struct MergedPolicies {
    std::vector<FirewallNetworkPolicy> policies;  ///< the most recent owner's first
    std::vector<DroppedClaim> dropped;

    bool operator==(const MergedPolicies&) const = default;
};

/// Keeps one network for each subnet: that of the owner who applied most recently. A network whose
/// firewall is off also holds its subnet. Consumes the store.
MergedPolicies mergedPolicies(PolicyStore store);

/// The log's sentence for a dropped claim.
std::string claimMessage(std::string_view owner, const FirewallNetworkPolicy& policy);

/// Sorts the enabled networks into those that may be enforced on a machine with these addresses and
/// those that may not, and notes the rules that are left out. Consumes the list.
Review review(std::vector<FirewallNetworkPolicy> policies, std::span<const HostAddress> hosts);

}  // namespace tarnvale::NetworkFirewall
