// SPDX-License-Identifier: MIT
//
// Which networks' machines may open connections to which others'. Reach.h says more of each pair;
// this goes through thousands of networks.

#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "firewall/analysis/Reach.h"

namespace tarnvale::FirewallAnalysis {

class NetworkReach {
public:
    /// The ruleset must outlive it. Of networks whose subnets overlap another's, it knows nothing.
    explicit NetworkReach(const Ruleset& ruleset);

    /// Whether some packet from a machine of one network to one of the other passes the lines of
    /// both. DHCP isn't looked at.
    bool reaches(std::size_t from, std::size_t to) const;

    /// False if no other network's machines reach it, whoever they are.
    bool mayBeReached(std::size_t network) const { return ends_[network].back().passes; }

    /// False if it reaches no other network's machines, whoever they are.
    bool mayReach(std::size_t network) const { return ends_[network].front().passes; }

private:
    /// Of one network, the lines of one direction.
    struct End {
        Passage usual;                      ///< with remotes that no prefix tells apart
        std::vector<AddressRange> unusual;  ///< the prefixes of others, with machines in them
        bool passes = false;                ///< whether a line passes anything
    };

    const Passage& passage(
        std::size_t network, Direction direction, std::size_t other, Passage& made) const;
    Passage passageWith(
        std::size_t network, Direction direction, const AddressRange& remotes) const;

    const Ruleset& ruleset_;
    std::vector<std::array<End, allDirections.size()>> ends_;  ///< by network
};

}  // namespace tarnvale::FirewallAnalysis
