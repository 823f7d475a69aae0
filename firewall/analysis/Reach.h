// SPDX-License-Identifier: MIT
//
// Who reaches whom: what passes between each network's machines and everybody whom some rule tells
// apart. DHCP, which always passes, isn't looked at.

#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "firewall/analysis/Verdict.h"

namespace tarnvale::FirewallAnalysis {

/// Some addresses that all rules of all networks treat alike.
struct Party {
    enum class Sort : std::uint8_t { network, host, remote, elsewhere };

    Sort sort = Sort::remote;
    AddressRange prefix;                 ///< without the narrower ones of other parties
    Address member = 0;                  ///< one of its addresses
    std::optional<std::size_t> network;  ///< whose machines they are, by its place in the ruleset
};

/// What passes, by kind. `dhcp` is as `udp`.
using Passage = std::array<std::vector<PortRange>, allKinds.size()>;

struct RuleOfNetwork {
    std::size_t network = 0;  ///< by its place in the ruleset
    std::size_t number = 0;   ///< counted from 1

    auto operator<=>(const RuleOfNetwork&) const =
        default;  // NOLINT(modernize-use-nullptr): misread
};

struct Reach {
    Passage passage;
    std::vector<RuleOfNetwork> rules;  ///< that decide on something of it, in order
};

/// The networks, the host, everywhere else, and what rules name, in this order. The host is there
/// if an address of it is known.
std::vector<Party> parties(const Ruleset& ruleset);

/// What passes from one party to the other; nothing where pf isn't asked by any network's lines.
std::optional<Reach> reach(const Ruleset& ruleset, const Party& from, const Party& to);

/// "everything", "nothing", "tcp 22; icmp", "everything but udp 53".
std::string words(const Passage& passage);

}  // namespace tarnvale::FirewallAnalysis
