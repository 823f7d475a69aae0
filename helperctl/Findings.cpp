// SPDX-License-Identifier: MIT

#include "helperctl/Findings.h"

#include <cstdint>
#include <string>

namespace tarnvale::helperctl {

using NetworkFirewall::Note;

std::vector<RefusedNetwork> refusedNetworks(std::span<const Note> notes) {
    std::vector<RefusedNetwork> networks;
    networks.reserve(notes.size());
    for (const auto& note : notes) {
        networks.push_back(
            {.networkID = note.networkID, .name = *note.networkName, .problem = note.problem});
    }
    return networks;
}

std::vector<SkippedRules> skippedRules(std::span<const Note> notes) {
    std::vector<SkippedRules> networks;
    const std::string* lastName = nullptr;
    for (const auto& note : notes) {
        if (note.networkName.get() != lastName) {
            lastName = note.networkName.get();
            networks.push_back({.networkID = note.networkID, .name = *lastName, .rules = {}});
        }
        networks.back().rules.push_back(
            {.number = static_cast<std::int64_t>(note.ruleNumber), .problem = note.problem});
    }
    return networks;
}

std::vector<std::string> droppedClaims(std::span<const NetworkFirewall::DroppedClaim> dropped) {
    std::vector<std::string> claims;
    claims.reserve(dropped.size());
    for (const auto& claim : dropped) {
        claims.push_back(NetworkFirewall::claimMessage(claim.owner, claim.policy));
    }
    return claims;
}

}  // namespace tarnvale::helperctl
