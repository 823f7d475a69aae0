// SPDX-License-Identifier: MIT
//
// What goes into the one pf anchor that enforces every user's firewall: the lists of all owners
// merged, so that one network governs each subnet, and the merged list reviewed, so that only
// networks that may be firewalled are.

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

/// One refused network or one rule that is left out.
struct Note {
    support::Uuid networkID;
    /// Shared by all notes of one network: one long name may stand above many faulty rules.
    std::shared_ptr<const std::string> networkName;
    std::size_t ruleNumber = 0;  ///< counted from 1; 0 when the note is about the network itself
    std::string problem;         ///< the whole sentence

    /// The network's name, for a rule followed by ", rule " and its number.
    std::string label() const;

    /// Notes are equal when they say the same of the same network.
    bool operator==(const Note& other) const;
};

struct Review {
    std::vector<FirewallNetworkPolicy> enforceable;  ///< subnet and gateway in canonical form
    std::vector<Note> refused;       ///< enabled networks that may not be firewalled
    std::vector<Note> skippedRules;  ///< enabled rules of enforceable networks, not writable

    bool operator==(const Review&) const = default;
};

/// A network that the merge left out because another one holds its subnet.
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

/// One network for each subnet, that of the owner who applied most recently. A network whose
/// firewall is off holds its subnet all the same. Takes the store over.
MergedPolicies mergedPolicies(PolicyStore store);

/// The log's sentence for a dropped claim.
std::string claimMessage(std::string_view owner, const FirewallNetworkPolicy& policy);

/// Sorts the enabled networks into those that can be enforced on a machine with these addresses
/// and those that may not, and notes the rules that will be left out. Takes the list over.
Review review(std::vector<FirewallNetworkPolicy> policies, std::span<const HostAddress> hosts);

}  // namespace tarnvale::NetworkFirewall
